// The reference device's handling and persistence, and the station's frame decoder and
// schedule reader, in one process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "device.h"
#include "frame_decoder.h"
#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"
#include "schedules_json.h"
#include "station.h"
#include "scratch_files.h"

namespace
{
std::unique_ptr<nk_message> roundTrip(Device& device, nk_message& request)
{
    nk_serializer bytes;
    request.serializeMsg(&bytes);
    tBlob content(bytes);
    device.handle(100, &content, "test");
    std::string error;
    return decodeMessage(&content, error);
}

unsigned int captureFrames(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
{
    static_cast<tBlob*>(ctx)->append(data, length);
    return length;
}
}

TEST(ToolsDevice, ConfirmsAndKeepsWhatItWasSent)
{
    const std::string dir = freshDirectory("device-test");
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    config.device_setName("hall");
    config.timeSlot_add_ts("day", 28800, 72000, 1u);
    config.frm_change_ts("main", 0, 0, 800, 600, 3, 1, 0);  // id below 10: the device renumbers it
    tString held;
    {
        DeviceStore store(dir);
        Device device(store, 1, 1);
        device.load();
        auto reply = roundTrip(device, config);
        ASSERT_TRUE(reply && reply->type() == nk_message::SET_CONFIG_RSP);
        held = static_cast<nk_messageSetConfigRsp&>(*reply).getChecksum();
        EXPECT_EQ(held, device.config().checksum(nk_message::VERSION_3));

        // A wrong checksum is refused; a sender's name never reaches the file system.
        nk_messageImage images(nk_message::VERSION_3);
        tBlob pixels(reinterpret_cast<unsigned char const*>("png!"), 4);
        images.add(5, "../../escape.png", "image/png", &pixels);
        nk_serializer bytes;
        images.serializeMsg(&bytes);
        const unsigned int checksumAt = bytes.size() - 4 - 1 - 4 - 1 - 40;  // inside the checksum text
        bytes.getBuffer()[checksumAt] ^= 1;
        tBlob corrupted(bytes);
        device.handle(100, &corrupted, "test");
        EXPECT_TRUE(device.store().imageIds().empty());
        nk_messageImage valid(nk_message::VERSION_3);
        valid.add(6, "../../escape.png", "image/png", &pixels);
        auto state = roundTrip(device, valid);
        ASSERT_TRUE(state && state->type() == nk_message::STATE_RSP);
        EXPECT_TRUE(static_cast<nk_messageStateRsp&>(*state).imageUidPresent(6));
        EXPECT_FALSE(static_cast<nk_messageStateRsp&>(*state).imageUidPresent(5));

        // Garbage is answered with nothing and recorded.
        tBlob garbage(reinterpret_cast<unsigned char const*>("\x10\x00\x01\x00zz"), 6);
        device.handle(100, &garbage, "test");
        EXPECT_TRUE(garbage.isEmpty());
        EXPECT_GE(device.counters().errors, 2u);

        // A body cut short is not acted on: a TIME of 3 bytes does not set the clock to 0.
        const long long clockBefore = device.clock();
        tBlob shortTime(reinterpret_cast<unsigned char const*>("\x0B\x00\x01\x00\x01\x02\x03"), 7);
        device.handle(100, &shortTime, "test");
        EXPECT_TRUE(shortTime.isEmpty());
        EXPECT_GE(device.counters().errors, 3u);
        EXPECT_GE(device.clock(), clockBefore);
    }
    {
        DeviceStore store(dir);
        Device device(store, 1, 1);
        device.load();
        nk_messageStateReq request(nk_message::VERSION_2);
        auto state = roundTrip(device, request);
        ASSERT_TRUE(state);
        auto& rsp = static_cast<nk_messageStateRsp&>(*state);
        EXPECT_EQ(rsp.csCfg(), held);
        EXPECT_EQ(rsp.devName(), "hall");
        EXPECT_EQ(rsp.images(), tUidList{6});
    }
    std::system(("rm -rf " + dir).c_str());
}

TEST(ToolsDevice, SchedulesPrintedByTheLibraryCanBePushedBack)
{
    nk_messageSetSchedulesReq original(nk_message::VERSION_2);
    nk_messageSchedule* s = original.addSchedule_(9, "late", 1000, 5000, 6, 6);
    s->addScheduleEntry(2, "b", 20, 43, false);
    s->addScheduleEntry(1, "a", 10, 42, false);
    original.addSchedule_(3, "early", "2024-03-01 08:30:00.000", "", 0, 0)->addScheduleEntry(4, "c", 5, 42, false);

    tJson printed;
    ASSERT_TRUE(printed.parse(original.getJson()));
    auto rebuilt = schedulesFromJson(printed, "printed", nk_message::VERSION_2);
    EXPECT_EQ(rebuilt->count(), 2u);
    EXPECT_EQ(rebuilt->getSchedule(0)->count(), 2u);
    // "frame" carries the flags when the library writes, so the logical display is 6 here.
    EXPECT_EQ(rebuilt->checksum(nk_message::VERSION_2), original.checksum(nk_message::VERSION_2));

    tJson rootEntries;
    ASSERT_TRUE(rootEntries.parse("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,"
                                  "\"schedules\":[{\"uid\":1},{\"uid\":2}],"
                                  "\"entries\":[{\"uid\":1,\"duration\":3,\"imageUid\":7}]}"));
    auto shared = schedulesFromJson(rootEntries, "root", nk_message::VERSION_2);
    EXPECT_EQ(shared->getSchedule(1)->getScheduleEntry(0)->imageId(), 7u);

    tJson wrong;
    wrong.parse("{\"action\":\"config\",\"type\":\"request\",\"tv\":1}");
    EXPECT_THROW(schedulesFromJson(wrong, "wrong", nk_message::VERSION_2), std::runtime_error);

    // Members the reader would not take as written are named instead of becoming defaults.
    auto refusal = [](char const* schedule) {
        tJson json;
        json.parse(std::string("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,\"schedules\":[") +
                   schedule + "]}");
        try {
            schedulesFromJson(json, "s.json", nk_message::VERSION_2);
        } catch (std::runtime_error const& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    EXPECT_EQ(refusal("{\"uid\":1,\"startTime\":\"2024-03-01 08:30:00\",\"stopTime\":-5,\"frame\":65535}"), "");
    EXPECT_NE(refusal("{\"startTime\":\"2024-03-01 08:30\"}").find("\"startTime\""), std::string::npos);
    EXPECT_NE(refusal("{\"uid\":-1,\"name\":5}").find("\"uid\": -1"), std::string::npos);
    EXPECT_NE(refusal("{\"frame\":65536}").find("\"frame\""), std::string::npos);
    EXPECT_NE(refusal("{\"entries\":[{\"durration\":5}]}").find("entry 0: \"durration\""), std::string::npos);
}

TEST(ToolsDevice, DecoderFindsMultiPartTelegramsAmidGarbage)
{
    nk_telegram::setMaxPayloadSize(16);
    tBlob frames;
    {
        nk_protocol engine(5, nullptr, nullptr, 10, nullptr, nullptr, nullptr);
        nk_messageGenericReq message(nk_message::VERSION_0, "a fairly long first text", "and another one");
        nk_serializer content;
        message.serializeMsg(&content);
        engine.respond_TS(&content, 9, 77);
        engine.poll(nullptr, &frames, &captureFrames, nullptr);
    }
    nk_telegram::setMaxPayloadSize(1048576);

    tBlob capture(reinterpret_cast<unsigned char const*>("\x02zz"), 3);  // a stray end byte first
    capture.append(frames);
    FrameDecoder decoder;
    std::vector<tJson> found;
    // Fed in small pieces, as a link delivers them.
    for (unsigned int at = 0; at < capture.size(); at += 7) {
        auto more = decoder.feed(tBlob(capture.getBuffer() + at, std::min(7u, capture.size() - at)));
        found.insert(found.end(), more.begin(), more.end());
    }
    ASSERT_EQ(found.size(), 1u);
    EXPECT_GT(found[0].getArraySize("parts"), 1u);
    tJson message, texts, header;
    ASSERT_TRUE(found[0].getObject("message", message));
    ASSERT_TRUE(message.getObject("json", texts));
    EXPECT_EQ(texts.getString("text1"), "a fairly long first text");
    ASSERT_TRUE(found[0].getObject("telegram", header));
    EXPECT_EQ(header.getString("type"), "TYPE_RESPONSE");
    EXPECT_EQ(header.getUInt("id"), 77u);
}

TEST(ToolsDevice, AnswersWhatTheLibraryReads)
{
    const std::string dir = freshDirectory("device-test");
    DeviceStore store(dir);
    Device device(store, 1, 1);
    auto answer = [&device](tBlob bytes) {
        device.handle(100, &bytes, "test");
        std::string error;
        return bytes.isEmpty() ? nullptr : decodeMessage(&bytes, error);
    };
    auto withBytes = [](nk_message& message, char const* extra, unsigned int extraLength) {
        nk_serializer bytes;
        message.serializeMsg(&bytes);
        tBlob blob(bytes);
        blob.append(reinterpret_cast<unsigned char const*>(extra), extraLength);
        return blob;
    };

    // A newer revision's longer body is read as far as the known layout goes and answered,
    // in the newest version the device knows.
    nk_messageStateReq state(static_cast<nk_message::teVersion>(3));
    auto reply = answer(withBytes(state, "\x05\x06", 2));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type(), nk_message::STATE_RSP);
    EXPECT_EQ(reply->version(), nk_message::VERSION_2);
    nk_messageStateReq seven(static_cast<nk_message::teVersion>(7));
    reply = answer(withBytes(seven, "", 0));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->version(), nk_message::VERSION_2);
    nk_messageTime time(nk_message::VERSION_0);
    reply = answer(withBytes(time, "\x01\x02\x03\x04", 4));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type(), nk_message::TIME);
    // A request that only reads is answered even without its body.
    reply = answer(tBlob(reinterpret_cast<unsigned char const*>("\x03\x00\x00\x00"), 4));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type(), nk_message::EVENTS_RSP);

    // A repeated frame id is read as the library reads it: the later frame replaces the earlier.
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    config.frm_change_ts("aa", 0, 0, 100, 100, 20, 1, 0);
    config.frm_change_ts("bb", 0, 0, 200, 200, 21, 1, 0);
    nk_serializer configBytes;
    config.serializeMsg(&configBytes);
    tBlob repeated(configBytes);
    const std::string raw(reinterpret_cast<char const*>(repeated.getBuffer()), repeated.size());
    const std::size_t second = raw.find("bb");
    ASSERT_NE(second, std::string::npos);
    const std::size_t idAt = second + 2 + 4 * 2;  // behind the name: left, top, width, height, id
    ASSERT_EQ(repeated.getBuffer()[idAt], 21);
    repeated.getBuffer()[idAt] = 20;
    reply = answer(repeated);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->type(), nk_message::SET_CONFIG_RSP);
    EXPECT_EQ(device.config().frm_count(), 1u);
    tFrame held;
    ASSERT_TRUE(device.config().frm_getById(20, &held));

    // A body cut short that would change the device is refused, and the log says why.
    const unsigned int eventsBefore = device.events().eventCount();
    EXPECT_FALSE(answer(tBlob(configBytes.getBuffer(), configBytes.size() - 3)));
    ASSERT_GT(device.events().eventCount(), eventsBefore);
    const tString why = device.events().getEvent(device.events().eventCount() - 1)->eventMessage();
    EXPECT_NE(why.str().find("cut short"), std::string::npos) << why.str();
    EXPECT_FALSE(answer(tBlob(reinterpret_cast<unsigned char const*>("\x02\x00\x00\x00"), 4)));  // a response
    EXPECT_NE(device.events().getEvent(device.events().eventCount() - 1)->eventMessage().str().find("not a request"),
              std::string::npos);

    // The event log and counters reach the disk when flushed, not on every request.
    EXPECT_FALSE(tFile::exists(tString(store.path("events.json"))));
    EXPECT_TRUE(device.logChanged());
    EXPECT_TRUE(device.flushLog());
    EXPECT_FALSE(device.logChanged());
    EXPECT_TRUE(tFile::exists(tString(store.path("events.json"))));
    EXPECT_TRUE(tFile::exists(tString(store.path("statistics.json"))));
    std::system(("rm -rf " + dir).c_str());
}
