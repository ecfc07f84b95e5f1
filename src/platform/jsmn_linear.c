/* The library's own use of the jsmn tokenizer, in time linear in the input.
 *
 * The stock tokenizer, built without parent links (the token layout the library exports), finds
 * the container a ',' or a closing bracket belongs to by scanning the token array backwards, which
 * makes one object with many members quadratic. This is the same tokenizer, token for token and
 * error for error, with the open containers kept on a stack beside the tokens: the innermost open
 * container is the top of the stack instead of the result of a scan. The stack is rebuilt from the
 * tokens on every call, so a parse resumed after JSMN_ERROR_NOMEM with a larger token array goes
 * on exactly where it stopped (the token array doubles, so the rebuilds cost O(n log n) in all).
 *
 * jsmn's helpers for strings and primitives are compiled here as static functions (JSMN_STATIC);
 * the exported jsmn_init and jsmn_parse are the stock ones, from jsmn.c. */
#include <stdlib.h>

#define JSMN_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <jsmn.h>
#pragma GCC diagnostic pop

#include "jsmn_linear.h"

/* The parse with a stack of open containers (token indexes, innermost last). */
static int qx_jsmn_parse_stacked(jsmn_parser *parser, const char *js, const size_t len,
                                 jsmntok_t *tokens, const unsigned int num_tokens, int *open) {
    int depth = 0;
    int count = (int)parser->toknext;
    int r;
    jsmntok_t *token;

    for (unsigned int i = 0; i < parser->toknext; i++)
        if (tokens[i].start != -1 && tokens[i].end == -1) open[depth++] = (int)i;

    for (; parser->pos < len && js[parser->pos] != '\0'; parser->pos++) {
        char c = js[parser->pos];
        jsmntype_t type;
        switch (c) {
        case '{':
        case '[':
            count++;
            token = jsmn_alloc_token(parser, tokens, num_tokens);
            if (token == NULL) return JSMN_ERROR_NOMEM;
            if (parser->toksuper != -1) tokens[parser->toksuper].size++;
            token->type = (c == '{' ? JSMN_OBJECT : JSMN_ARRAY);
            token->start = (int)parser->pos;
            parser->toksuper = (int)parser->toknext - 1;
            open[depth++] = (int)parser->toknext - 1;
            break;
        case '}':
        case ']':
            type = (c == '}' ? JSMN_OBJECT : JSMN_ARRAY);
            if (depth == 0) return JSMN_ERROR_INVAL; /* unmatched closing bracket */
            token = &tokens[open[depth - 1]];
            if (token->type != type) return JSMN_ERROR_INVAL;
            token->end = (int)parser->pos + 1;
            depth--;
            parser->toksuper = depth > 0 ? open[depth - 1] : -1;
            break;
        case '\"':
            r = jsmn_parse_string(parser, js, len, tokens, num_tokens);
            if (r < 0) return r;
            count++;
            if (parser->toksuper != -1) tokens[parser->toksuper].size++;
            break;
        case '\t':
        case '\r':
        case '\n':
        case ' ':
            break;
        case ':':
            parser->toksuper = (int)parser->toknext - 1;
            break;
        case ',':
            if (parser->toksuper != -1 && tokens[parser->toksuper].type != JSMN_ARRAY &&
                tokens[parser->toksuper].type != JSMN_OBJECT && depth > 0)
                parser->toksuper = open[depth - 1];
            break;
        default:
            /* every unquoted value is a primitive, as in jsmn's non-strict mode */
            r = jsmn_parse_primitive(parser, js, len, tokens, num_tokens);
            if (r < 0) return r;
            count++;
            if (parser->toksuper != -1) tokens[parser->toksuper].size++;
            break;
        }
    }
    return depth > 0 ? JSMN_ERROR_PART : count;
}

int qx_jsmn_parse(jsmn_parser *parser, const char *js, size_t len, jsmntok_t *tokens,
                  unsigned int num_tokens) {
    if (tokens == NULL || num_tokens == 0) return jsmn_parse(parser, js, len, tokens, num_tokens);
    int *open = (int *)malloc(sizeof(int) * num_tokens);
    if (open == NULL) return jsmn_parse(parser, js, len, tokens, num_tokens);
    int r = qx_jsmn_parse_stacked(parser, js, len, tokens, num_tokens, open);
    free(open);
    return r;
}
