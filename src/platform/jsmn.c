/* The jsmn tokenizer, compiled once (without JSMN_STATIC) so that jsmn_init and jsmn_parse are
 * real functions, exported by the library for its clients. */
#pragma GCC visibility push(default)
#include <jsmn.h>
#pragma GCC visibility pop
