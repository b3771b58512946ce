// Frames on the wire: layout, round trips, and how damaged streams are consumed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base128.h"
#include "crc8.h"
#include "nk_telegram.h"
#include "tCompression.h"

namespace
{
typedef nk_basicTelegram B;
typedef nk_telegramPart P;

tBlob bytes(std::vector<unsigned char> const& v) { return tBlob(v.data(), static_cast<unsigned int>(v.size())); }

tBlob frameOf(P& part)
{
    tBlob out;
    EXPECT_TRUE(part.serialize(&out));
    return out;
}

// Encodes a hand-made body (CRC appended here) as one frame.
tBlob frameFromBody(std::vector<unsigned char> body)
{
    body.push_back(crc_crc8init(body.data(), static_cast<unsigned int>(body.size())));
    std::vector<unsigned char> enc(base128::encodedSize(static_cast<unsigned int>(body.size())));
    base128::encode(enc.data(), body.data(), static_cast<unsigned int>(body.size()));
    tBlob f;
    f.append(0x01);
    f.append(enc.data(), static_cast<unsigned int>(enc.size()));
    f.append(0x02);
    return f;
}
}

TEST(TelegramPart, TimeRequestFrameIsByteExact)
{
    // A TIME message (type 11, version 0, clock 1700000000) from address 1 to address 2,
    // telegram id 1, sent as a request without response: the example in docs/wire-format.md.
    tBlob content = bytes({0x0B, 0x00, 0x00, 0x00, 0x00, 0xF1, 0x53, 0x65});
    P part(1, 1, 2, 1, 1700000000u, true, &content, B::TYPE_REQUEST_NO_RESPONSE, B::COMPRESSION_NONE);
    tBlob expected = bytes({0x01, 0x80, 0xc0, 0x80, 0x80, 0x80, 0x88, 0x80, 0x80, 0x80, 0x80, 0xa0, 0x80, 0x80, 0x80,
                            0x82, 0x80, 0x80, 0x80, 0x80, 0x8f, 0x8a, 0xcd, 0xca, 0x89, 0x84, 0x80, 0x80, 0x80, 0x80,
                            0xac, 0x80, 0x80, 0x80, 0x80, 0x9e, 0x95, 0x9b, 0x96, 0xc6, 0x02});
    tBlob frame = frameOf(part);
    EXPECT_EQ(frame, expected);
    EXPECT_EQ(part.serializedSize(), frame.size());

    // The same frame appended behind existing bytes leaves them in place.
    tBlob out = bytes({0xAA});
    ASSERT_TRUE(part.serialize(&out));
    EXPECT_EQ(out.size(), 1 + expected.size());
    EXPECT_FALSE(part.serialize(nullptr));
}

TEST(TelegramPart, RoundTripsEveryFlagCombination)
{
    const B::teType types[] = {B::TYPE_REQUEST_NO_RESPONSE, B::TYPE_REQUEST_FORCE_RESPONSE, B::TYPE_RESPONSE};
    const B::teCompression comps[] = {B::COMPRESSION_NONE, B::COMPRESSION_RLE, B::COMPRESSION_HUFF};
    tBlob stream;
    std::vector<unsigned int> sizes;
    unsigned int n = 0;
    for (B::teType t : types)
        for (B::teCompression c : comps)
            for (bool last : {false, true}) {
                tBlob payload;
                for (unsigned int i = 0; i < n * 37; ++i) payload.append(static_cast<unsigned char>(i * 7 + n));
                P part(0x10000 + n, 0xA0B0C0D0u, 0xFFFFFFFEu, n + 1, 0xDEADBEEFu, last, &payload, t, c);
                ASSERT_TRUE(part.serialize(&stream));
                ++n;
            }
    P in;
    n = 0;
    for (B::teType t : types)
        for (B::teCompression c : comps)
            for (bool last : {false, true}) {
                ASSERT_TRUE(in.streamContainsTelegram(&stream)) << n;
                EXPECT_EQ(in.telegramId(), 0x10000 + n);
                EXPECT_EQ(in.sourceAddress(), 0xA0B0C0D0u);
                EXPECT_EQ(in.destinationAddress(), 0xFFFFFFFEu);
                EXPECT_EQ(in.partId(), n + 1);
                EXPECT_EQ(in.timestamp(), 0xDEADBEEFu);
                EXPECT_EQ(in.type(), t);
                EXPECT_EQ(in.compression(), c);
                EXPECT_EQ(in.isLastPart(), last);
                ASSERT_EQ(in.payload()->size(), n * 37);
                for (unsigned int i = 0; i < n * 37; ++i)
                    ASSERT_EQ(in.payload()->getBuffer()[i], static_cast<unsigned char>(i * 7 + n));
                ++n;
            }
    EXPECT_EQ(stream.size(), 0u);
    EXPECT_FALSE(in.streamContainsTelegram(&stream));
    EXPECT_FALSE(in.streamContainsTelegram(nullptr));
}

TEST(TelegramPart, DamagedStreamsAreConsumedAsDocumented)
{
    tBlob payload = bytes({1, 2, 3});
    P good(5, 1, 2, 1, 100, true, &payload, B::TYPE_REQUEST_FORCE_RESPONSE, B::COMPRESSION_NONE);
    tBlob frame = frameOf(good);
    P in;

    // A stray end byte ahead of the next start byte holds the stream, untouched.
    tBlob held = bytes({0xAA, 0x02, 0x01});
    held.append(frame.getBuffer() + 1, frame.size() - 1);
    tBlob copy(held);
    EXPECT_FALSE(in.streamContainsTelegram(&held));
    EXPECT_FALSE(in.streamContainsTelegram(&held));
    EXPECT_EQ(held, copy);

    // An empty frame is consumed; so are the bytes in front of a frame.
    tBlob empty = bytes({0x55, 0x01, 0x02, 0x77});
    EXPECT_FALSE(in.streamContainsTelegram(&empty));
    EXPECT_EQ(empty, bytes({0x77}));

    // One flipped bit fails the CRC and consumes that frame only; the next call reads on.
    tBlob stream(frame);
    stream.getBuffer()[10] ^= 0x04;
    stream.append(frame);
    EXPECT_FALSE(in.streamContainsTelegram(&stream));
    EXPECT_EQ(stream, frame);
    EXPECT_TRUE(in.streamContainsTelegram(&stream));
    EXPECT_EQ(*in.payload(), payload);

    // A start byte with no end yet waits for more bytes.
    tBlob partial(frame.getBuffer(), frame.size() - 1);
    EXPECT_FALSE(in.streamContainsTelegram(&partial));
    EXPECT_EQ(partial.size(), frame.size() - 1);
    partial.append(0x02);
    EXPECT_TRUE(in.streamContainsTelegram(&partial));

    // Bodies with a good CRC but too short, or a payload length running past the body.
    std::vector<unsigned char> header = {9, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0, 6, 0, 0, 0, 0x0B};
    std::vector<unsigned char> shortBody = {9, 0, 0, 0, 8, 0, 0, 0, 7, 0};
    tBlob s = frameFromBody(shortBody);
    P partly;
    EXPECT_FALSE(partly.streamContainsTelegram(&s));
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(partly.sourceAddress(), 9u);  // read before the short field
    EXPECT_EQ(partly.destinationAddress(), 8u);
    EXPECT_EQ(partly.telegramId(), 0u);

    std::vector<unsigned char> liar = header;
    for (unsigned char b : {0xFF, 0xFF, 0xFF, 0x7F, 0xAB}) liar.push_back(b);
    s = frameFromBody(liar);
    EXPECT_FALSE(in.streamContainsTelegram(&s));
    EXPECT_EQ(s.size(), 0u);

    // A zero-length payload is legal: the body is 26 bytes. Flags type 0 give no member.
    std::vector<unsigned char> zero = header;
    zero[20] = 0x08;
    for (unsigned char b : {0, 0, 0, 0}) zero.push_back(b);
    s = frameFromBody(zero);
    EXPECT_EQ(s.size(), 2 + base128::encodedSize(26));
    ASSERT_TRUE(in.streamContainsTelegram(&s));
    EXPECT_EQ(in.payload()->size(), 0u);
    EXPECT_EQ(in.type(), 0);
    EXPECT_FALSE(in.isResponse());
    EXPECT_FALSE(in.isRequestWithoutResponse());
}

TEST(TelegramPart, NamesAndSinglePartDetection)
{
    EXPECT_EQ(B::typeName(B::TYPE_RESPONSE), "TYPE_RESPONSE");
    EXPECT_EQ(B::typeName(static_cast<B::teType>(0)), "invalid");
    EXPECT_EQ(B::compressionName(B::COMPRESSION_HUFF), "COMPRESSION_HUFF");
    EXPECT_EQ(B::compressionName(static_cast<B::teCompression>(48)), "invalid");
    EXPECT_EQ(P::partInfo(P::PARTINFO_LAST_PART), "PARTINFO_LAST_PART");
    EXPECT_EQ(P::partInfo(static_cast<P::tePartInfo>(12)), "invalid");

    tBlob content;
    for (int i = 0; i < 200; ++i) content.append(static_cast<unsigned char>('x'));
    tBlob rle = tCompression::encodeRLE(content);
    P first(1, 1, 2, 1, 0, true, &rle, B::TYPE_REQUEST_NO_RESPONSE, B::COMPRESSION_RLE);
    tBlob* single = first.isSinglePartTelegram();
    ASSERT_NE(single, nullptr);
    EXPECT_EQ(*single, content);

    P second(1, 1, 2, 2, 0, true, &rle, B::TYPE_REQUEST_NO_RESPONSE, B::COMPRESSION_RLE);
    EXPECT_EQ(second.isSinglePartTelegram(), nullptr);
    EXPECT_EQ(*second.payload(), rle);

    P copy(&first);
    EXPECT_EQ(copy.partId(), 1u);
    EXPECT_EQ(*copy.payload(), content);
    P none(static_cast<P*>(nullptr));
    EXPECT_EQ(none.sourceAddress(), 0xFFFFFFFFu);
    EXPECT_EQ(none.partId(), 0u);
}

TEST(TelegramPart, DecodedSizeLimitRefusesLargerFormsLikeDamagedOnes)
{
    tBlob content;
    for (int i = 0; i < 100000; ++i) content.append(static_cast<unsigned char>(i % 3 ? 'y' : 'z'));
    tBlob forms[] = {tCompression::encodeRLE(content), tCompression::encodeHuffman(content)};
    const B::teCompression kinds[] = {B::COMPRESSION_RLE, B::COMPRESSION_HUFF};
    EXPECT_EQ(B::maxDecodedSize(), 0u);
    for (int k = 0; k < 2; ++k) {
        for (unsigned int limit : {0u, 100000u, 99999u, 1u}) {
            B::setMaxDecodedSize(limit);
            P part(1, 1, 2, 1, 0, true, &forms[k], B::TYPE_REQUEST_NO_RESPONSE, kinds[k]);
            tBlob* decoded = part.isSinglePartTelegram();
            ASSERT_NE(decoded, nullptr);
            if (limit == 0 || limit >= content.size())
                EXPECT_EQ(*decoded, content) << k << " " << limit;
            else
                EXPECT_EQ(decoded->size(), 0u) << k << " " << limit;
        }
    }
    // Plain content is never cut: it is no larger than the bytes received.
    B::setMaxDecodedSize(10);
    P plain(1, 1, 2, 1, 0, true, &content, B::TYPE_REQUEST_NO_RESPONSE, B::COMPRESSION_NONE);
    EXPECT_EQ(*plain.isSinglePartTelegram(), content);
    B::setMaxDecodedSize(0);
}

TEST(TelegramPart, FlagValuesNoSenderWritesAreReadAsDocumented)
{
    // A frame with part id 1 and the given flags byte around the payload "hi".
    auto frameWith = [](unsigned char flags) {
        std::vector<unsigned char> body = {1, 0, 0, 0, 2, 0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, flags, 2, 0, 0, 0, 'h', 'i'};
        body.push_back(crc_crc8init(body.data(), static_cast<unsigned int>(body.size())));
        std::vector<unsigned char> frame(base128::encodedSize(static_cast<unsigned int>(body.size())) + 2);
        frame.front() = 0x01;
        base128::encode(frame.data() + 1, body.data(), static_cast<unsigned int>(body.size()));
        frame.back() = 0x02;
        tBlob stream(frame.data(), static_cast<unsigned int>(frame.size()));
        return stream;
    };
    tBlob stream = frameWith(0xFA);  // bits 6-7 set, compression 30, last part, type 2
    P part;
    ASSERT_TRUE(part.streamContainsTelegram(&stream));
    EXPECT_EQ(part.type(), B::TYPE_REQUEST_FORCE_RESPONSE);
    tBlob* whole = part.isSinglePartTelegram();
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char const*>(whole->getBuffer()), whole->size()), "hi");  // undecoded
    for (unsigned char notLast : {0x02, 0x0E}) {  // part info 00 and 0C
        tBlob s = frameWith(notLast);
        P p;
        ASSERT_TRUE(p.streamContainsTelegram(&s));
        EXPECT_FALSE(p.isLastPart());
        EXPECT_EQ(p.isSinglePartTelegram(), nullptr);
    }
}
