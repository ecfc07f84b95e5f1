// The two small helpers of the token walk: key comparison and the integer conversion.
#include "config_support.h"

namespace {

int32_t to_int(const std::string &text) {
    return _QX_VarStrToInt(text.c_str(), (int32_t)text.size());
}

jsmntok_t token(jsmntype_t type, int start, int end) {
    jsmntok_t tok;
    memset(&tok, 0, sizeof(tok));
    tok.type = type;
    tok.start = start;
    tok.end = end;
    return tok;
}

}  // namespace

TEST(VarStrToIntTest, FractionIsCut) {
    EXPECT_EQ(to_int("1.5"), 1);
}

TEST(VarStrToIntTest, HexadecimalReadsItsLeadingZero) {
    EXPECT_EQ(to_int("0x10"), 0);
}

TEST(VarStrToIntTest, SignIsAllowed) {
    EXPECT_EQ(to_int("-3"), -3);
    EXPECT_EQ(to_int("+7"), 7);
}

TEST(VarStrToIntTest, LiteralsAndTextGiveZero) {
    EXPECT_EQ(to_int("true"), 0);
    EXPECT_EQ(to_int("false"), 0);
    EXPECT_EQ(to_int("null"), 0);
    EXPECT_EQ(to_int(""), 0);
}

TEST(VarStrToIntTest, ExponentIsNotApplied) {
    EXPECT_EQ(to_int("12e3"), 12);
}

TEST(VarStrToIntTest, AtMost23CharactersAreRead) {
    // 23 characters: read whole; the 24th and later are cut off before the conversion.
    EXPECT_EQ(to_int(std::string(21, '0') + "42"), 42);
    EXPECT_EQ(to_int(std::string(22, '0') + "42"), 4);
    EXPECT_EQ(to_int(std::string(23, '0') + "42"), 0);
    EXPECT_EQ(to_int(std::string(200, ' ') + "42"), 0);
}

TEST(VarStrToIntTest, OnlyTheCountedTextIsRead) {
    EXPECT_EQ(_QX_VarStrToInt("12345", 2), 12);
    EXPECT_EQ(_QX_VarStrToInt("100,\"Cpuset\"", 3), 100);
    EXPECT_EQ(_QX_VarStrToInt("77", 0), 0);
}

TEST(TokEqualTest, StringTokenWithTheSameBytesAndLengthIsEqual) {
    const char *json = "{\"Util\": 5}";
    jsmntok_t tok = token(JSMN_STRING, 2, 6);
    EXPECT_TRUE(_QX_JSMN_TokEqual(json, &tok, "Util"));
}

TEST(TokEqualTest, PrefixOrLongerKeyIsNotEqual) {
    const char *json = "{\"PerThreadUtil\": 5}";
    jsmntok_t whole = token(JSMN_STRING, 2, 15);
    EXPECT_TRUE(_QX_JSMN_TokEqual(json, &whole, "PerThreadUtil"));
    EXPECT_FALSE(_QX_JSMN_TokEqual(json, &whole, "PerThread"));
    EXPECT_FALSE(_QX_JSMN_TokEqual(json, &whole, "PerThreadUtils"));
    jsmntok_t part = token(JSMN_STRING, 2, 11);  // "PerThread"
    EXPECT_TRUE(_QX_JSMN_TokEqual(json, &part, "PerThread"));
    EXPECT_FALSE(_QX_JSMN_TokEqual(json, &part, "PerThreadUtil"));
}

TEST(TokEqualTest, ComparisonIsCaseSensitive) {
    const char *json = "\"util\"";
    jsmntok_t tok = token(JSMN_STRING, 1, 5);
    EXPECT_FALSE(_QX_JSMN_TokEqual(json, &tok, "Util"));
}

TEST(TokEqualTest, NonStringTokenIsNeverEqual) {
    const char *json = "Util";
    for (jsmntype_t type : {JSMN_PRIMITIVE, JSMN_OBJECT, JSMN_ARRAY, JSMN_UNDEFINED}) {
        jsmntok_t tok = token(type, 0, 4);
        EXPECT_FALSE(_QX_JSMN_TokEqual(json, &tok, "Util")) << type;
    }
}

TEST(TokEqualTest, EmptyKeyEqualsAnEmptyString) {
    const char *json = "\"\"";
    jsmntok_t tok = token(JSMN_STRING, 1, 1);
    EXPECT_TRUE(_QX_JSMN_TokEqual(json, &tok, ""));
    EXPECT_FALSE(_QX_JSMN_TokEqual(json, &tok, "Util"));
}
