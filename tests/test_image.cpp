#include <gtest/gtest.h>

#include "test_helpers.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "SHA1.h"
#include "nk_messageImage.h"

// Every fsync of the process, by path, so that the tests see what the sync path syncs. This
// definition takes the place of the C library's for the support library too (it must be
// visible outside the executable for that, hence the attribute).
static std::vector<std::string> g_fsyncPaths;
extern "C" __attribute__((visibility("default"))) int fsync(int fd)
{
    char link[64], path[4096];
    std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, sizeof(path) - 1);
    g_fsyncPaths.push_back(n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string());
    return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace
{


std::string sha1Of(tBlob const& b)
{
    SHA1 s;
    s.Input(b.getBuffer(), b.size());
    return s.Result().str();
}

std::string captured(void (*f)())
{
    testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::vector<std::string> listDir(std::string const& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string readFile(std::string const& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct TempDir
{
    std::string path;
    TempDir()
    {
        char tmpl[] = "/tmp/nk_image_XXXXXX";
        char* p = mkdtemp(tmpl);
        path = p ? p : "";
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
};

}

TEST(MsgFile, MimeTableAndNames)
{
    using F = nk_msgFile;
    const std::pair<char const*, F::teMimeType> known[] = {
        {"image/png", F::MIME_PNG},        {"image/jpeg", F::MIME_JPEG},
        {"application/pdf", F::MIME_PDF}, {"application/x-7z-compressed", F::MIME_7Z},
        {"application/octet-stream", F::MIME_7Z}, {"application/xml", F::MIME_XML},
        {"text/xml", F::MIME_XML},
    };
    testing::internal::CaptureStdout();
    for (auto const& k : known) EXPECT_EQ(F::getMimeType(k.first), k.second) << k.first;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    EXPECT_EQ(captured([] { EXPECT_EQ(F::getMimeType("IMAGE/PNG"), F::MIME_UNSUPPORTED); }),
              "unsupported mime type: IMAGE/PNG\r\n");
    EXPECT_EQ(captured([] { EXPECT_EQ(F::getFileExtension(F::MIME_UNSUPPORTED), "."); }),
              "unsupported mime type: 5\r\n");
    EXPECT_EQ(captured([] { EXPECT_EQ(F::getFileExtension(static_cast<F::teMimeType>(200)), "."); }),
              "unsupported mime type: 200\r\n");

    const char* const extensions[] = {".png", ".jpg", ".pdf", ".7z", ".xml"};
    for (unsigned int t = 0; t < 5; ++t) {
        EXPECT_EQ(F::getFileExtension(static_cast<F::teMimeType>(t)), extensions[t]);
        EXPECT_EQ(F::imageNameByMimeType_e(18446744073709551615ULL, static_cast<F::teMimeType>(t)),
                  std::string("image_id18446744073709551615") + extensions[t]);
    }
    EXPECT_EQ(F::imageNameByMimeType_e(42, F::MIME_PNG), "image_id42.png");
    EXPECT_EQ(captured([] {
                  EXPECT_EQ(F::imageNameByMimeType_e(18446744073709551615ULL, F::MIME_UNSUPPORTED),
                            "image_id18446744073709551615.");
              }),
              "unsupported mime type: 5\r\n");

    tBlob content = blobOf("abc");
    nk_msgFile jpeg(5, "p.jpg", "image/jpeg", &content);
    EXPECT_EQ(jpeg.imageName(99), "image_id99.jpg");  // the argument's id, not the file's
    EXPECT_EQ(jpeg.checksum(), "a9993e364706816aba3e25717850c26c9cd0d89d");
    content.clear();
    EXPECT_EQ(jpeg.content().size(), 3u);  // the sender's copy

    nk_msgFile empty(1, "e", "image/png", nullptr);
    EXPECT_EQ(empty.content().size(), 0u);
    EXPECT_EQ(empty.checksum(), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    nk_msgFile received(2, "r", "not checked", 77, &content);
    EXPECT_EQ(received.checksum(), "not checked");
    EXPECT_EQ(received.mimeType(), 77);
}

TEST(ImageMessage, AddRulesAndWireInEveryRevision)
{
    nk_messageImage img(nk_message::VERSION_3);
    tBlob hello = blobOf("hello");
    EXPECT_FALSE(img.add(1, "n", "image/png", nullptr));
    EXPECT_EQ(img.count(), 0u);
    EXPECT_TRUE(img.add(42, "x.png", "image/png", &hello));
    EXPECT_TRUE(img.add(42, "other", "image/jpeg", &hello));
    EXPECT_EQ(img.count(), 1u);  // id present: nothing added
    EXPECT_TRUE(img.imageIsPresent(42));
    EXPECT_FALSE(img.imageIsPresent(43));
    EXPECT_EQ(img.get(1), nullptr);

    nk_messageImage twice(nk_message::VERSION_0);
    EXPECT_TRUE(twice.add(9, "a", "text/xml"));
    EXPECT_TRUE(twice.add(9, "b", "text/xml"));
    EXPECT_EQ(twice.count(), 2u);
    EXPECT_EQ(twice.get(1)->name(), "b");

    img.taskRemove = 1;
    img.taskFbc = 9;
    const std::string cs = "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d";  // SHA-1 of "hello"
    std::vector<unsigned char> body = {0x01, 0x01, 0x00, 0x00, 0x00, 0x2A, 0, 0, 0, 0, 0, 0, 0,
                                       0x05, 0x00, 0x00, 0x00, 'x', '.', 'p', 'n', 'g', 0x28, 0x00, 0x00, 0x00};
    body.insert(body.end(), cs.begin(), cs.end());
    body.insert(body.end(), {0x00, 0x05, 0x00, 0x00, 0x00, 'h', 'e', 'l', 'l', 'o'});

    for (unsigned short v = 0; v <= 3; ++v) {
        nk_messageImage m(static_cast<nk_message::teVersion>(v));
        m.taskRemove = 1;
        m.taskFbc = 9;
        m.add(42, "x.png", "image/png", &hello);
        nk_serializer ser;
        ASSERT_TRUE(m.serializeMsg(&ser));
        std::vector<unsigned char> expected = {0x0D, 0x00, static_cast<unsigned char>(v), 0x00};
        expected.insert(expected.end(), body.begin(), body.end());
        if (v > 2) expected.push_back(0x09);  // task fbc only from revision 3 on
        EXPECT_EQ(bytes(ser), expected) << "version " << v;

        std::unique_ptr<nk_message> back(nk_message::getMessage(&ser));
        auto* r = dynamic_cast<nk_messageImage*>(back.get());
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->version(), v);
        EXPECT_EQ(r->taskRemove, 1);
        EXPECT_EQ(r->taskFbc, v > 2 ? 9 : 0);
        ASSERT_EQ(r->count(), 1u);
        EXPECT_EQ(r->get(0)->id(), 42u);
        EXPECT_EQ(r->get(0)->name(), "x.png");
        EXPECT_EQ(r->get(0)->checksum(), cs);
        EXPECT_EQ(r->get(0)->mimeType(), nk_msgFile::MIME_PNG);
        EXPECT_EQ(r->get(0)->content(), hello);
    }

    // A body cut inside the second file keeps the first; a revision 3 body without task fbc fails.
    nk_messageImage two(nk_message::VERSION_3);
    two.add(1, "a", "image/png", &hello);
    two.add(2, "b", "image/png", &hello);
    nk_serializer full;
    two.serializeMsg(&full);
    tBlob cut(full.getBuffer(), full.size() - 3);
    std::unique_ptr<nk_message> partial(nk_message::getMessage(&cut));
    ASSERT_NE(partial, nullptr);
    EXPECT_EQ(static_cast<nk_messageImage*>(partial.get())->count(), 1u);
    tBlob shortFbc(full.getBuffer() + 4, full.size() - 5);
    nk_serializer reader(&shortFbc);
    EXPECT_FALSE(two.serialize(&reader, nk_serializer::SER_READ));
    EXPECT_EQ(two.count(), 2u);
}

TEST(ImageMessage, JsonFormAndReader)
{
    nk_messageImage img(nk_message::VERSION_1);
    tBlob hello = blobOf("hello");
    img.add(18446744073709551615ULL, "x.png", "image/png", &hello);
    img.taskRemove = 2;
    img.taskFbc = 3;  // in the JSON form whatever the revision
    EXPECT_EQ(img.getJson(), R"({"action":"images","type":"request","tv":1,"taskRemove":2,"taskFbc":3,"images":[)"
                             R"({"uid":18446744073709551615,"name":"x.png","cs":"aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d",)"
                             R"("mime":0,"content":"aGVsbG8="}]})");

    nk_messageImage back(nk_message::VERSION_0);
    tJson j;
    ASSERT_TRUE(img.serializeToJson(&j));
    ASSERT_TRUE(back.serializeFromJson(&j));
    EXPECT_EQ(back.getJson(), img.getJson());

    for (char const* refused : {R"({"action":"images","type":"response","tv":1})",
                                R"({"action":"images","type":"request","tv":0})",
                                R"({"action":"image","type":"request","tv":1})"}) {
        ASSERT_TRUE(j.parse(refused));
        EXPECT_FALSE(back.serializeFromJson(&j)) << refused;
        EXPECT_EQ(back.count(), 1u);
    }
    ASSERT_TRUE(j.parse(R"({"action":"images","type":"request","tv":1,"images":[{"uid":5,"cs":"c"},{"uid":5}]})"));
    ASSERT_TRUE(back.serializeFromJson(&j));
    EXPECT_EQ(back.taskRemove, 2);  // missing members keep the current values
    EXPECT_EQ(back.taskFbc, 3);
    ASSERT_EQ(back.count(), 2u);  // no duplicate test when reading
    EXPECT_EQ(back.get(0)->mimeType(), nk_msgFile::MIME_UNSUPPORTED);
    EXPECT_EQ(back.get(0)->checksum(), "c");
    EXPECT_EQ(back.get(0)->content().size(), 0u);
    EXPECT_FALSE(back.serializeFromJson(nullptr));
    EXPECT_FALSE(back.serializeToJson(nullptr));
}

TEST(MsgFile, SaveToDir)
{
    TempDir dir;
    ASSERT_FALSE(dir.path.empty());
    tBlob content = randomBlob(100000, 1);
    nk_msgFile file(1234, "wire/../name.png", "image/png", &content);

    g_fsyncPaths.clear();
    tString saved = file.saveToDir(dir.path.c_str(), false);
    EXPECT_EQ(saved, (dir.path + "/image_id1234.png").c_str());
    EXPECT_TRUE(g_fsyncPaths.empty());
    EXPECT_EQ(listDir(dir.path), std::vector<std::string>{"image_id1234.png"});
    EXPECT_EQ(readFile(saved.str()), std::string(content.getBuffer(), content.getBuffer() + content.size()));

    // The sync path syncs the temporary file and then the file under its final name.
    saved = file.saveToDir((dir.path + "/").c_str(), true, "chosen.bin");
    EXPECT_EQ(saved, (dir.path + "/chosen.bin").c_str());
    EXPECT_EQ(g_fsyncPaths, (std::vector<std::string>{dir.path + "/chosen.bin~", dir.path + "/chosen.bin"}));
    EXPECT_EQ(listDir(dir.path), (std::vector<std::string>{"chosen.bin", "image_id1234.png"}));
    EXPECT_EQ(readFile(saved.str()).size(), content.size());

    // The temporary name is the target plus "~": when that name cannot be created nothing
    // appears under the final name.
    ASSERT_EQ(mkdir((dir.path + "/blocked.png~").c_str(), 0700), 0);
    EXPECT_EQ(file.saveToDir(dir.path.c_str(), true, "blocked.png"), "");
    EXPECT_EQ(access((dir.path + "/blocked.png").c_str(), F_OK), -1);

    // A directory that does not exist, or a path below a regular file: empty result, no file.
    EXPECT_EQ(file.saveToDir((dir.path + "/missing").c_str(), true), "");
    EXPECT_EQ(file.saveToDir((dir.path + "/chosen.bin").c_str(), false), "");
    EXPECT_EQ(listDir(dir.path), (std::vector<std::string>{"blocked.png~", "chosen.bin", "image_id1234.png"}));

    // Replacing an existing file leaves exactly the new content under the name.
    tBlob shorter = blobOf("short");
    nk_msgFile replacement(1234, "n", "image/png", &shorter);
    EXPECT_EQ(replacement.saveToDir(dir.path.c_str(), false), (dir.path + "/image_id1234.png").c_str());
    EXPECT_EQ(readFile(dir.path + "/image_id1234.png"), "short");
}

TEST(MsgFile, SaveToReadOnlyDir)
{
    TempDir dir;
    tBlob content = blobOf("data");
    nk_msgFile file(1, "n", "image/png", &content);
    if (geteuid() == 0) GTEST_SKIP() << "running as root: a read-only directory does not refuse writes";
    std::string readOnly = dir.path + "/ro";
    ASSERT_EQ(mkdir(readOnly.c_str(), 0500), 0);
    EXPECT_EQ(file.saveToDir(readOnly.c_str(), true), "");
    EXPECT_TRUE(listDir(readOnly).empty());
    chmod(readOnly.c_str(), 0700);
}

TEST(ImageMessage, SeveralMiBFilesThroughTheFactoryAndToDisk)
{
    nk_messageImage img(nk_message::VERSION_3);
    std::vector<tBlob> contents;
    const char* const mimes[] = {"image/png", "image/jpeg", "application/pdf", "application/octet-stream"};
    for (unsigned int i = 0; i < 4; ++i) {
        contents.push_back(randomBlob((3u << 20) + i * 4099, 100 + i));
        ASSERT_TRUE(img.add(1000 + i, ("file" + std::to_string(i)).c_str(), mimes[i], &contents.back()));
    }
    nk_serializer ser;
    ASSERT_TRUE(img.serializeMsg(&ser));
    std::unique_ptr<nk_message> back(nk_message::getMessage(&ser));
    auto* r = dynamic_cast<nk_messageImage*>(back.get());
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r->count(), 4u);
    for (unsigned int i = 0; i < 4; ++i) {
        nk_msgFile* f = r->get(i);
        EXPECT_EQ(f->id(), 1000u + i);
        EXPECT_EQ(f->content(), contents[i]);
        EXPECT_EQ(f->checksum(), img.get(i)->checksum());
        EXPECT_EQ(f->checksum(), sha1Of(contents[i]));
    }

    TempDir dir;
    tString saved = r->get(3)->saveToDir(dir.path.c_str(), true);
    EXPECT_EQ(saved, (dir.path + "/image_id1003.7z").c_str());
    FILE* p = popen(("sha1sum '" + saved.str() + "'").c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[128] = {};
    bool got = std::fgets(line, sizeof(line), p) != nullptr;
    int status = pclose(p);
    if (!got || status != 0) GTEST_SKIP() << "sha1sum is not available";
    EXPECT_EQ(std::string(line, 40), r->get(3)->checksum().str());
}
