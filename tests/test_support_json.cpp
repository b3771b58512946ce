// tJson: the compact text is checksummed by peers, so its bytes are fixed exactly.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include <nlohmann/json.hpp>

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

TEST(tJson, LargeObjectsReadAndChangeAsTheOrderedMapDoes)
{
    // The reference is the ordered map read directly: members keep their first position,
    // a repeated key takes its last value, at every level and on both sides of the size
    // from which members are found through an index.
    using Ordered = nlohmann::ordered_json;
    std::mt19937 rng(17);
    for (int round = 0; round < 200; ++round) {
        const unsigned keys = 1 + rng() % 40;
        auto randomObject = [&](auto& self, int depth) -> std::string {
            std::string text = "{";
            for (unsigned i = 0, n = rng() % 30; i < n; ++i) {
                if (i) text += ",";
                text += "\"k" + std::to_string(rng() % keys) + "\":";
                if (depth < 2 && rng() % 5 == 0)
                    text += self(self, depth + 1);
                else if (rng() % 4 == 0)
                    text += "[" + std::to_string(rng() % 100) + ",{\"a\":1,\"a\":2}]";
                else
                    text += std::to_string(rng() % 1000);
            }
            return text + "}";
        };
        const std::string text = randomObject(randomObject, 0);
        Ordered expected = Ordered::parse(text);
        tJson j;
        ASSERT_TRUE(j.parse(text.c_str()));
        ASSERT_EQ(std::string(j.getJson(false).c_str()), expected.dump()) << text;

        // Changes through tJson: an existing member keeps its place, a new one goes last.
        const std::string changed = "k" + std::to_string(rng() % keys);
        j.addInt(changed.c_str(), -1);
        expected[changed] = -1;
        j.addString("new", "x");
        expected["new"] = "x";
        ASSERT_EQ(std::string(j.getJson(false).c_str()), expected.dump()) << text;
        for (unsigned k = 0; k < keys; ++k) {
            const std::string key = "k" + std::to_string(k);
            EXPECT_EQ(j.has(key.c_str()), expected.contains(key)) << key;
            if (expected.contains(key) && expected[key].is_number_integer()) {
                EXPECT_EQ(j.getInt(key.c_str(), 7), expected[key].get<long long>()) << key;
            }
        }
        tJson copy = j;
        EXPECT_EQ(copy.getString("new"), "x");
        tJson inner;
        EXPECT_FALSE(j.getObject(changed.c_str(), inner));  // whatever it was, it is -1 now
    }

    // Many members, each found again after the read.
    std::string big = "{";
    for (int i = 0; i < 5000; ++i) big += (i ? ",\"m" : "\"m") + std::to_string(i) + "\":" + std::to_string(i);
    big += ",\"m0\":-1}";
    tJson j;
    ASSERT_TRUE(j.parse(big.c_str()));
    EXPECT_EQ(j.getInt("m0"), -1);
    EXPECT_EQ(j.getInt("m4999"), 4999);
    EXPECT_EQ(std::string(j.getJson(false).c_str()).substr(0, 20), "{\"m0\":-1,\"m1\":1,\"m2\"");
}
