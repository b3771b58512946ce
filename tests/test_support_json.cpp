// tJson: the compact text is checksummed by peers, so its bytes are fixed exactly.
#include <gtest/gtest.h>

#include <string>

#include "tJson.h"

TEST(tJson, CompactTextOfAMixedObject)
{
    tJson inner;
    inner.addInt("k", 1);
    tStringList names;
    names.add("a");
    names.add("b\"c");
    unsigned char const raw[] = {1, 2, 3, 0xFF};

    tJson j;
    j.addString("name", "x");
    EXPECT_EQ(-5, j.addInt("n", -5));
    j.addUInt("u", 18446744073709551615ULL);
    j.addBool("ok", true);
    j.addBinary("bin", tBlob(raw, 4));
    j.addStringArray("list", names);
    j.addObject("obj", inner);
    j.addString("name", "y");  // keeps its first position
    EXPECT_EQ(R"({"name":"y","n":-5,"u":18446744073709551615,"ok":true,"bin":"AQID/w==","list":["a","b\"c"],"obj":{"k":1}})",
              j.getJson(false).str());
    EXPECT_EQ("{}", tJson().getJson(false).str());

    tJson back;
    ASSERT_TRUE(back.parse(j.getJson(false)));
    EXPECT_EQ(j.getJson(false), back.getJson(false));
    EXPECT_EQ("y", back.getString("name"));
    EXPECT_EQ(18446744073709551615ULL, back.getUInt("u"));
    EXPECT_EQ(-5, back.getInt("n"));
    EXPECT_TRUE(back.getBool("ok"));
    tBlob bin;
    ASSERT_TRUE(back.getBinary("bin", bin));
    EXPECT_EQ(tBlob(raw, 4), bin);
    tStringList list;
    ASSERT_TRUE(back.getStringArray("list", list));
    EXPECT_EQ(names, list);
    tJson obj;
    ASSERT_TRUE(back.getObject("obj", obj));
    EXPECT_EQ(1, obj.getInt("k"));
}

TEST(tJson, GettersGiveDefaultsForOtherTypes)
{
    tJson j;
    ASSERT_TRUE(j.parse(R"({"neg":-3,"big":18446744073709551615,"f":1.5,"s":"7","t":true,"nb":"not base64"})"));
    EXPECT_EQ(-3, j.getInt("neg", 9));
    EXPECT_EQ(9u, j.getUInt("neg", 9));
    EXPECT_EQ(9, j.getInt("big", 9));  // does not fit a signed 64-bit value
    EXPECT_EQ(9, j.getInt("f", 9));
    EXPECT_EQ(9u, j.getUInt("f", 9));
    EXPECT_EQ(9, j.getInt("s", 9));
    EXPECT_EQ(9, j.getInt("missing", 9));
    EXPECT_EQ("", j.getString("neg"));
    EXPECT_EQ("d", j.getString("missing", "d"));
    EXPECT_FALSE(j.getBool("s", false));
    EXPECT_TRUE(j.getBool("missing", true));
    tBlob out;
    EXPECT_FALSE(j.getBinary("nb", out));
    EXPECT_TRUE(out.isEmpty());
    tStringList list;
    EXPECT_FALSE(j.getStringArray("s", list));
    EXPECT_EQ(0u, j.getArraySize("s"));
    EXPECT_TRUE(j.has("t"));
    EXPECT_FALSE(j.has("T"));
}

TEST(tJson, ArraysOfObjects)
{
    tJson a, b;
    a.addInt("i", 0);
    b.addInt("i", 1);
    tJson j;
    j.addToArray("items", a);
    j.addToArray("items", b);
    EXPECT_EQ(R"({"items":[{"i":0},{"i":1}]})", j.getJson(false).str());
    EXPECT_EQ(2u, j.getArraySize("items"));
    tJson out;
    ASSERT_TRUE(j.getArrayObject("items", 1, out));
    EXPECT_EQ(1, out.getInt("i", -1));
    EXPECT_FALSE(j.getArrayObject("items", 2, out));
    EXPECT_FALSE(j.getArrayObject("none", 0, out));

    ASSERT_TRUE(j.parse(R"({"mixed":[1,{"a":2},"s"],"o":{}})"));
    EXPECT_FALSE(j.getArrayObject("mixed", 0, out));
    EXPECT_TRUE(j.getArrayObject("mixed", 1, out));
    EXPECT_FALSE(j.getArrayObject("o", 0, out));
    tStringList strings;
    ASSERT_TRUE(j.getStringArray("mixed", strings));
    EXPECT_EQ(1u, strings.count());
}

TEST(tJson, HostileTextNeverThrows)
{
    tJson j;
    j.addString("s", tString("a\xFF\xC3z", 4));
    EXPECT_EQ("{\"s\":\"a\xEF\xBF\xBD\xEF\xBF\xBDz\"}", j.getJson(false).str());
    EXPECT_FALSE(j.getJson(true).isEmpty());

    for (char const* bad : {"", "{", "{\"a\":}", "[1,2]", "3", "\"s\"", "null", "{\"a\":1}x", "{'a':1}",
                            "{\"a\":\"\xFF\"}", "{\"a\":1,}"}) {
        j.addInt("leftover", 1);
        EXPECT_FALSE(j.parse(bad)) << bad;
        EXPECT_TRUE(j.isEmpty()) << bad;
        EXPECT_EQ("{}", j.getJson(false).str()) << bad;
    }

    std::string deep = "{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}";
    EXPECT_FALSE(j.parse(deep));
    std::string fine = "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
    EXPECT_TRUE(j.parse(fine));
    // Brackets inside strings do not count as nesting.
    EXPECT_TRUE(j.parse("{\"a\":\"" + std::string(1000, '[') + "\\\"\"}"));
}
