/* jsmn_parse in linear time, for the library's own configuration reading (jsmn_linear.c). */
#ifndef QXRT_JSMN_LINEAR_H
#define QXRT_JSMN_LINEAR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Exactly what jsmn_parse (non-strict, without parent links) returns and writes, for the same
 * parser state, text and token array, including a resume after JSMN_ERROR_NOMEM. */
int qx_jsmn_parse(jsmn_parser *parser, const char *js, size_t len, jsmntok_t *tokens,
                  unsigned int num_tokens);

#ifdef __cplusplus
}
#endif

#endif
