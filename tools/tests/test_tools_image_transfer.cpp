// An image on its way through the tools without extra copies: nkctl writes the IMAGE request
// straight from the file, nkdevice reads it in place and stores it while hashing. Both must
// give and take exactly the bytes the library's nk_messageImage gives and takes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "device.h"
#include "image_request.h"
#include "image_request_view.h"
#include "station.h"
#include "tool_error.h"
#include "scratch_files.h"

namespace
{
void writeFile(std::string const& path, tBlob const& content)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<char const*>(content.getBuffer()), content.size());
}

nk_serializer libraryBytes(nk_message::teVersion version, std::vector<std::pair<unsigned long long, tBlob>>& files)
{
    nk_messageImage message(version);
    for (auto& file : files) message.add(file.first, "f" + tString::fromUInt64(file.first), "image/png", &file.second);
    nk_serializer bytes;
    message.serializeMsg(&bytes);
    return bytes;
}

ExitCode codeOf(std::string const& path, std::uint64_t limit)
{
    try {
        imageRequestFromFile(path, 1, "x", "image/png", limit);
    } catch (ToolError const& e) {
        return e.code;
    }
    return EXIT_OK;
}

std::string storedFile(std::string const& dir, std::string const& name)
{
    std::ifstream in(dir + "/images/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
}

TEST(ToolsImageTransfer, RequestFromAFileIsTheLibrarysRequest)
{
    const std::string dir = freshDirectory("image-test");
    for (unsigned int size : {0u, 1u, 1000u, (3u << 20) + 17}) {
        tBlob content = patterned(size, size);
        const std::string path = dir + "/content.pdf";
        writeFile(path, content);
        ImageRequest request = imageRequestFromFile(path, 9007199254740993ull, "content.pdf", "application/pdf", 4u << 20);

        nk_messageImage message(nk_message::VERSION_3);
        message.add(9007199254740993ull, "content.pdf", "application/pdf", &content);
        nk_serializer expected;
        ASSERT_TRUE(message.serializeMsg(&expected));
        EXPECT_TRUE(request.bytes == expected) << size << " bytes";
        EXPECT_EQ(request.checksum, message.get(0)->checksum());
        EXPECT_EQ(request.contentBytes, size);
    }

    // Failures a user sees: a file that is not there, and one above the limit, refused
    // before anything is read or sent.
    EXPECT_EQ(codeOf(dir + "/missing.png", 100), EXIT_INPUT);
    writeFile(dir + "/eleven.png", patterned(11, 1));
    EXPECT_EQ(codeOf(dir + "/eleven.png", 10), EXIT_LOCAL_LIMIT);
    EXPECT_EQ(codeOf(dir + "/eleven.png", 11), EXIT_OK);
    try {
        imageRequestFromFile(dir + "/eleven.png", 1, "x", "image/png", 10);
    } catch (ToolError const& e) {
        EXPECT_NE(std::string(e.what()).find("nothing was sent"), std::string::npos) << e.what();
    }
}

TEST(ToolsImageTransfer, ViewReadsWhatTheLibraryReads)
{
    std::vector<std::pair<unsigned long long, tBlob>> files;
    files.emplace_back(3, patterned(5000, 3));
    files.emplace_back(4, patterned(0, 4));
    files.emplace_back(5, patterned(70, 5));
    for (nk_message::teVersion version : {nk_message::VERSION_2, nk_message::VERSION_3}) {
        nk_serializer bytes = libraryBytes(version, files);
        bytes.append(reinterpret_cast<unsigned char const*>("later"), 5);  // a newer revision's fields
        tBlob received(bytes);
        ImageRequestView view;
        std::string refusal;
        ASSERT_TRUE(readImageRequest(received, nk_message::VERSION_3, view, refusal)) << refusal;
        EXPECT_TRUE(received.isEmpty());
        ASSERT_EQ(view.files.size(), files.size());
        for (std::size_t i = 0; i < files.size(); ++i) {
            EXPECT_EQ(view.files[i].id, files[i].first);
            EXPECT_EQ(view.files[i].name, "f" + tString::fromUInt64(files[i].first));
            EXPECT_EQ(view.files[i].mimeType, nk_msgFile::MIME_PNG);
            ASSERT_EQ(view.files[i].length, files[i].second.size());
            EXPECT_TRUE(tBlob(view.content(view.files[i]), view.files[i].length) == files[i].second);
        }
    }

    // Cut anywhere, the view refuses exactly where the library's reader fails.
    nk_serializer whole = libraryBytes(nk_message::VERSION_3, files);
    for (unsigned int cut = 4; cut < whole.size(); cut += (cut < 200 || whole.size() - cut < 200) ? 1 : 97) {
        nk_serializer body(whole.getBuffer() + 4, cut - 4);
        nk_messageImage library(nk_message::VERSION_3);
        const bool libraryReads = library.serialize(&body, nk_serializer::SER_READ);
        tBlob received(whole.getBuffer(), cut);
        ImageRequestView view;
        std::string refusal;
        EXPECT_EQ(readImageRequest(received, nk_message::VERSION_3, view, refusal), libraryReads) << "cut at " << cut;
        if (!libraryReads) {
            EXPECT_NE(refusal.find("cut short"), std::string::npos);
        }
    }
}

TEST(ToolsImageTransfer, DeviceStoresOnlyMatchingContentAndOneFilePerId)
{
    const std::string dir = freshDirectory("image-test");
    DeviceStore store(dir);
    Device device(store, 1, 1);
    device.load();
    auto push = [&](unsigned long long id, char const* mime, tBlob content, bool corrupt) {
        nk_messageImage message(nk_message::VERSION_3);
        message.add(id, "name", mime, &content);
        nk_serializer bytes;
        message.serializeMsg(&bytes);
        if (corrupt) bytes.getBuffer()[bytes.size() - 2] ^= 0x40;  // the content's last byte
        tBlob request(bytes);
        device.handle(100, &request, "test");
        std::string error;
        return decodeMessage(&request, error);
    };

    const tBlob first = patterned(300000, 7);
    auto state = push(6, "image/png", first, false);
    ASSERT_TRUE(state && state->type() == nk_message::STATE_RSP);
    EXPECT_EQ(storedFile(dir, "image_id6.png"), std::string(reinterpret_cast<char const*>(first.getBuffer()), first.size()));

    // Content that does not match its checksum changes nothing, leaves no temporary file,
    // and is recorded with its reason.
    const unsigned int errorsBefore = device.counters().errors;
    state = push(6, "image/png", patterned(1000, 8), true);
    ASSERT_TRUE(state && state->type() == nk_message::STATE_RSP);
    EXPECT_EQ(storedFile(dir, "image_id6.png").size(), first.size());
    EXPECT_EQ(device.store().imageIds(), std::vector<unsigned long long>{6});
    for (std::string const& name : filesIn(dir + "/images")) EXPECT_EQ(name, "image_id6.png");
    EXPECT_EQ(device.counters().errors, errorsBefore + 1);

    // Another type for the same id replaces the file.
    state = push(6, "application/pdf", patterned(10, 9), false);
    struct stat info;
    EXPECT_NE(::stat((dir + "/images/image_id6.png").c_str(), &info), 0);
    EXPECT_EQ(storedFile(dir, "image_id6.pdf").size(), 10u);
    EXPECT_EQ(device.store().imageIds(), std::vector<unsigned long long>{6});
}
