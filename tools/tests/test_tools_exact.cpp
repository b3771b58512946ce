// What nkctl reads from users and prints for them: time texts refused by name instead of
// moved, ids exact as text, printed schedule sets that push back to the same checksum, and
// device text that cannot steer a terminal.
#include <gtest/gtest.h>

#include <string>

#include "commands.h"
#include "json_bridge.h"
#include "output.h"
#include "schedules_json.h"
#include "station.h"
#include "time_text.h"
#include "tool_error.h"

namespace
{
std::string timeRefusal(std::string const& text)
{
    long long seconds = 0;
    std::string reason;
    return parseTimeText(text, seconds, reason) ? std::string() : reason;
}

long long timeValue(std::string const& text)
{
    long long seconds = -1;
    std::string reason;
    EXPECT_TRUE(parseTimeText(text, seconds, reason)) << text << ": " << reason;
    return seconds;
}

std::unique_ptr<nk_messageSetSchedulesReq> schedules(std::string const& members)
{
    tJson json;
    json.parse("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,\"schedules\":[" + members + "]}");
    return schedulesFromJson(json, "s.json", nk_message::VERSION_2);
}

std::string scheduleRefusal(std::string const& members)
{
    try {
        schedules(members);
    } catch (ToolError const& e) {
        EXPECT_EQ(e.code, EXIT_INPUT);
        return e.what();
    }
    return std::string();
}
}

TEST(ToolsExact, ImpossibleTimesAreRefusedAndZonesRead)
{
    EXPECT_NE(timeRefusal("2024-13-01 08:30:00").find("month 13"), std::string::npos);
    EXPECT_NE(timeRefusal("2024-02-30 08:30:00").find("day 30"), std::string::npos);
    EXPECT_NE(timeRefusal("2023-02-29 00:00:00").find("day 29"), std::string::npos);
    EXPECT_NE(timeRefusal("2024-03-01 25:30:00").find("25:30:00"), std::string::npos);
    EXPECT_NE(timeRefusal("2024-03-01 08:60:00").find("does not exist"), std::string::npos);
    EXPECT_NE(timeRefusal("2024-03-01 08:30:00 CET").find("time zone"), std::string::npos);
    EXPECT_NE(timeRefusal("1969-12-31 23:59:59").find("outside"), std::string::npos);
    EXPECT_FALSE(timeRefusal("2024-03-01 08:30").empty());
    EXPECT_FALSE(timeRefusal("2024-03-01 08:30:00.").empty());

    // The plain form is UTC, as the device reads it; the ISO forms a user pastes agree.
    EXPECT_EQ(timeValue("2024-02-29 08:30:00"), 1709195400);
    EXPECT_EQ(timeValue("2024-03-01 08:30:00"), 1709281800);
    EXPECT_EQ(timeValue("2024-03-01T08:30:00Z"), 1709281800);
    EXPECT_EQ(timeValue("2024-03-01T08:30:00.250Z"), 1709281800);
    EXPECT_EQ(timeValue("2024-03-01T09:30:00+01:00"), 1709281800);
    EXPECT_EQ(timeValue("2024-03-01T03:00:00-0530"), 1709281800);
    EXPECT_EQ(timeValue("2106-02-07 06:28:15"), 0xFFFFFFFFLL);
    EXPECT_EQ(static_cast<long long>(nk_messageSetSchedulesReq::getStartTimeFromString("2024-03-01 08:30:00")),
              timeValue("2024-03-01 08:30:00"));

    EXPECT_NE(scheduleRefusal("{\"startTime\":\"2024-13-01 08:30:00\"}").find("month 13 does not exist"),
              std::string::npos);
    EXPECT_NE(scheduleRefusal("{\"stopTime\":\"2024-02-30 00:00:00\"}").find("\"stopTime\""), std::string::npos);
    auto set = schedules("{\"uid\":1,\"startTime\":\"2024-03-01T09:30:00+01:00\"}");
    EXPECT_EQ(set->getSchedule(0)->startTime(), 1709281800);
}

TEST(ToolsExact, IdsComeAndGoAsExactText)
{
    ToolJson printed = ToolJson::parse(
        R"({"images":[{"uid":9007199254740993}],"schedules":[{"uid":1,"entries":[{"imageUid":18446744073709551615}]}]})");
    addIdTexts(printed);
    EXPECT_EQ(printed["images"][0]["uidText"], "9007199254740993");
    EXPECT_EQ(printed["schedules"][0]["uidText"], "1");
    EXPECT_EQ(printed["schedules"][0]["entries"][0]["imageUidText"], "18446744073709551615");

    auto set = schedules(R"({"uid":"9007199254740993","entries":[{"uid":2,"imageUid":"9007199254740995"}]})");
    EXPECT_EQ(set->getSchedule(0)->id(), 9007199254740993ull);
    EXPECT_EQ(set->getSchedule(0)->getScheduleEntry(0)->imageId(), 9007199254740995ull);
    // The text copy is what a script kept exact; the number may have been rounded on the way.
    set = schedules(R"({"uid":9007199254740992,"uidText":"9007199254740993"})");
    EXPECT_EQ(set->getSchedule(0)->id(), 9007199254740993ull);
    EXPECT_NE(scheduleRefusal(R"({"uid":5,"uidText":"6"})").find("disagree"), std::string::npos);
    EXPECT_NE(scheduleRefusal(R"({"uid":"12x"})").find("\"uid\""), std::string::npos);
    EXPECT_NE(scheduleRefusal(R"({"uid":"18446744073709551616"})").find("\"uid\""), std::string::npos);
}

TEST(ToolsExact, PrintedScheduleSetsPushBackUnchanged)
{
    nk_messageSetSchedulesReq original(nk_message::VERSION_2);
    nk_messageSchedule* s = original.addSchedule_(8, "eight", 1000, 5000, 6, 1);
    s->addScheduleEntry(2, "b", 20, 9007199254740993ull, false);
    original.addSchedule_(3, "three", 0, 0, 0, 2)->addScheduleEntry(4, "c", 5, 42, false);

    ToolJson printed = toToolJson(messageJson(original));
    EXPECT_EQ(printed["schedules"][0]["frame"], 1);
    addIdTexts(printed);  // as the JSON output carries it
    auto pushed = schedulesFromJson(toLibraryJson(printed), "printed", nk_message::VERSION_2);
    EXPECT_EQ(pushed->getSchedule(0)->showOnLogicalDisplay(), 1);
    EXPECT_EQ(pushed->getSchedule(0)->flags(), 6u);
    EXPECT_EQ(pushed->checksum(nk_message::VERSION_2), original.checksum(nk_message::VERSION_2));
}

TEST(ToolsExact, DeviceTextCannotSteerTheTerminal)
{
    EXPECT_EQ(escapeControl("hall\x1b]0;owned\x07"), "hall\\x1b]0;owned\\x07");
    EXPECT_EQ(escapeControl("a\nb\rc\x7f"), "a\\x0ab\\x0dc\\x7f");
    EXPECT_EQ(escapeControl("\xc2\x9b" "2J"), "\\u009b2J");
    EXPECT_EQ(escapeControl("K\xc3\xbc" "che \\"), "K\xc3\xbc" "che \\\\");
    const std::string shown = renderHuman(R"({"devName":"x\u001b[2J\nfake: line","evc":3,"timeFirst":86400})");
    EXPECT_EQ(shown.find('\x1b'), std::string::npos);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 3);
    EXPECT_NE(shown.find("events held: 3"), std::string::npos);
    EXPECT_NE(shown.find("first seen: 1970-01-02 00:00:00 UTC"), std::string::npos);
}

TEST(ToolsExact, DevicesByAddressFileAndEnvironment)
{
    const DeviceLocation plain = parseDeviceLocation("10.0.0.5:4000", 1);
    EXPECT_EQ(plain.address, 1u);
    EXPECT_EQ(plain.name(), "10.0.0.5:4000");
    const DeviceLocation addressed = parseDeviceLocation("7@10.0.0.5:4000", 1);
    EXPECT_EQ(addressed.address, 7u);
    EXPECT_EQ(addressed.name(), "7@10.0.0.5:4000");
    try {
        parseDeviceLocation("x@10.0.0.5:4000", 1);
        FAIL();
    } catch (ToolError const& e) {
        EXPECT_EQ(e.code, EXIT_USAGE);
    }
    EXPECT_THROW(parseDeviceLocation("4294967295@h:1", 1), ToolError);  // the no-address value
    EXPECT_EQ(devicesFromText(" 1@a:1, b:2\tc:3 "), (std::vector<std::string>{"1@a:1", "b:2", "c:3"}));
    try {
        devicesFromFile("/nonexistent/devices.txt");
        FAIL();
    } catch (ToolError const& e) {
        EXPECT_EQ(e.code, EXIT_INPUT);
    }
}
