// tTime calendar, tLog formatting and tFile on a real file system.
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <unistd.h>

#include "tFile.h"
#include "tLog.h"
#include "tTime.h"

TEST(tTime, KnownDatesAndSetters)
{
    tTime t(1709281800);
    EXPECT_EQ(2024, t.getYear());
    EXPECT_EQ(3, t.getMonth());
    EXPECT_EQ(1, t.getMDay());
    EXPECT_EQ(8, t.getHour());
    EXPECT_EQ(30, t.getMinute());
    EXPECT_EQ(30600u, t.dayTimeSeconds());

    tTime leap(951782400);
    EXPECT_EQ(2000, leap.getYear());
    EXPECT_EQ(2, leap.getMonth());
    EXPECT_EQ(29, leap.getMDay());
    EXPECT_EQ(2100, tTime(4102444800LL).getYear());
    EXPECT_EQ(31, tTime(253402300799LL).getMDay());

    tTime d(1709281800);
    d.mDay(0);  // the day before the 1st: 2024-02-29
    EXPECT_EQ(1709195400, d.timeSec());
    d.setTimeSec(1709281800);
    d.month(13);  // January of the next year
    d.mDay(1);
    EXPECT_EQ(1735720200, d.timeSec());
    d.setTimeSec(1709281800);
    d.hour(24);
    d.minute(30);
    EXPECT_EQ(1709339400, d.timeSec());
    d.setTimeSec(1709281800);
    d.year(1900);
    d.hour(0);
    d.minute(0);
    EXPECT_EQ(-2203891200LL, d.timeSec());
    d.second(59);
    EXPECT_EQ(59u, d.dayTimeSeconds());

    EXPECT_EQ(86399u, tTime(-1).dayTimeSeconds());
    EXPECT_EQ(1969, tTime(-1).getYear());
    EXPECT_EQ(0u, tTime(-86400).dayTimeSeconds());

    long long before = tTime::now();
    tTime::sleep(20);
    EXPECT_GE(tTime::now(), before);
    EXPECT_GT(before, 1700000000LL);
}

TEST(tTime, EveryTimeAtBothEndsOfTheRangeHasDefinedFields)
{
    // The sanitizer build turns any overflow here into a failure; the fields are checked
    // against the floor remainder (which no 64-bit value overflows, and which 32-bit targets
    // can compute too), and setting each field to its own value changes nothing.
    const long long lowest = std::numeric_limits<long long>::min();
    const long long highest = std::numeric_limits<long long>::max();
    std::vector<long long> times;
    for (long long k = 0; k < 3; ++k) {
        for (long long off : {0LL, 1LL, 55806LL, 55807LL, 55808LL, 86399LL, 86400LL, 200000LL}) {
            times.push_back(lowest + off + k * 86400 * 400);
            times.push_back(highest - off - k * 86400 * 400);
        }
    }
    for (long long t : times) {
        const long long remainder = t % 86400;
        const long long dayTime = remainder < 0 ? remainder + 86400 : remainder;
        tTime time(t);
        EXPECT_EQ(time.dayTimeSeconds(), static_cast<unsigned int>(dayTime)) << t;
        EXPECT_EQ(time.getHour(), dayTime / 3600) << t;
        EXPECT_EQ(time.getMinute(), dayTime / 60 % 60) << t;
        EXPECT_EQ(time.getSecond(), dayTime % 60) << t;
        EXPECT_GE(time.getMonth(), 1);
        EXPECT_LE(time.getMDay(), 31);
        tTime same(t);
        same.second(static_cast<unsigned char>(time.getSecond()));
        same.minute(static_cast<unsigned char>(time.getMinute()));
        same.hour(static_cast<unsigned char>(time.getHour()));
        same.mDay(static_cast<unsigned char>(time.getMDay()));
        EXPECT_EQ(same.timeSec(), t);
        // Setters beyond the range wrap modulo 2^64 (defined, never undefined).
        tTime moved(t);
        moved.hour(200);
        const unsigned long long expected = static_cast<unsigned long long>(t) - static_cast<unsigned long long>(dayTime) + 200ull * 3600 +
                                            static_cast<unsigned long long>(time.getMinute() * 60 + time.getSecond());
        EXPECT_EQ(static_cast<unsigned long long>(moved.timeSec()), expected) << t;
        moved.year(1970);
        moved.month(1);
        moved.mDay(1);
        EXPECT_EQ(moved.dayTimeSeconds(), tTime(moved.timeSec()).dayTimeSeconds());
    }
}

namespace
{
void collect(void* context, char const* text) { static_cast<std::vector<std::string>*>(context)->push_back(text); }
}

TEST(tLog, FormatsAnyLengthForItsOutput)
{
    std::vector<std::string> lines;
    tLog log(&lines, collect);
    log.log("n=%d s=%s", 5, "x");
    std::string longText(5000, 'q');
    log.log("%s!", longText.c_str());
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("n=5 s=x", lines[0]);
    EXPECT_EQ(longText + "!", lines[1]);
    tLog silent(nullptr, nullptr);
    EXPECT_FALSE(silent.logEnabled());
    silent.log("%s", "nothing");
}

TEST(tFile, WriteRenameAndAtomicWrite)
{
    char dirTemplate[] = "/tmp/nk_file_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    tString dir = tString(dirTemplate).completePath();
    tString a = dir + "a.bin";
    unsigned char const first[] = {1, 2, 3, 4};
    unsigned char const second[] = {9};

    tFile f(tFile::FILE_CREATE_TRUNCATE_WRITE, a);
    ASSERT_TRUE(f.isOpen());
    EXPECT_TRUE(f.add(first, 4));
    EXPECT_TRUE(f.add(second, 1));
    EXPECT_TRUE(f.sync());
    f.close();
    tBlob content;
    ASSERT_TRUE(tFile::readAll(a, content));
    EXPECT_EQ(5u, content.size());

    // Mode 49 truncates an existing file.
    ASSERT_TRUE(f.open(a, 49));
    EXPECT_TRUE(f.add(second, 1));
    f.close();
    ASSERT_TRUE(tFile::readAll(a, content));
    EXPECT_EQ(tBlob(second, 1), content);

    tString b = dir + "b.bin";
    EXPECT_TRUE(tFile::renameFile(a, b));
    EXPECT_FALSE(tFile::exists(a));
    EXPECT_TRUE(tFile::exists(b));

    tString c = dir + "c.json";
    ASSERT_TRUE(tFile::writeAtomic(c, tBlob(first, 4)));
    ASSERT_TRUE(tFile::writeAtomic(c, tBlob(second, 1)));
    EXPECT_FALSE(tFile::exists(c + "~"));
    ASSERT_TRUE(tFile::readAll(c, content));
    EXPECT_EQ(tBlob(second, 1), content);

    tString missing = dir + "no/such/dir/x";
    EXPECT_FALSE(tFile::writeAtomic(missing, tBlob(first, 4)));
    EXPECT_FALSE(tFile(49, missing).isOpen());
    EXPECT_FALSE(tFile::readAll(missing, content));
    EXPECT_TRUE(content.isEmpty());
    EXPECT_FALSE(tFile::readAll(dir, content));  // a directory is not a file
    EXPECT_FALSE(tFile().add(first, 4));

    EXPECT_TRUE(tFile::removeFile(b));
    EXPECT_TRUE(tFile::removeFile(c));
    EXPECT_FALSE(tFile::removeFile(c));
    rmdir(dirTemplate);
}
