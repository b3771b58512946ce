#ifndef NK_TELEGRAM_H
#define NK_TELEGRAM_H

#include <memory>
#include <set>
#include <tuple>

#include "nkExport.h"
#include "tBlob.h"
#include "tString.h"
#include "tVector.h"

// The header shared by whole telegrams and by single parts: addresses, telegram id, the
// creation time stamp, the type and the compression, and an owned payload.
class NK_API nk_basicTelegram
{
public:
    // The values are the bits of the frame's flags byte.
    enum teType
    {
        TYPE_REQUEST_NO_RESPONSE = 1,
        TYPE_REQUEST_FORCE_RESPONSE = 2,
        TYPE_RESPONSE = 3,
    };
    enum teCompression
    {
        COMPRESSION_NONE = 0x00,
        COMPRESSION_RLE = 0x10,
        COMPRESSION_HUFF = 0x20,
    };

    static const unsigned int ADDRESS_NONE = 0xFFFFFFFFu;
    static const unsigned int ADDRESS_BROADCAST = 0xFFFFFFFEu;

    nk_basicTelegram();
    nk_basicTelegram(unsigned int src, unsigned int dest, unsigned int id, unsigned int timestamp, teType type);
    // Deep copy of other's header and payload; null gives a default header.
    explicit nk_basicTelegram(nk_basicTelegram* other);
    virtual ~nk_basicTelegram();
    nk_basicTelegram(nk_basicTelegram const&) = delete;
    nk_basicTelegram& operator=(nk_basicTelegram const&) = delete;

    unsigned int sourceAddress() const { return m_u32Src; }
    unsigned int destinationAddress() const { return m_u32Dest; }
    unsigned int telegramId() const { return m_u32Id; }
    unsigned int timestamp() const { return m_u32Timestamp; }
    teType type() const { return m_eType; }
    teCompression compression() const { return m_eCompression; }
    virtual tBlob* payload() { return ownPayload(); }

    bool isResponse() const { return m_eType == TYPE_RESPONSE; }
    bool isRequestWithoutResponse() const { return m_eType == TYPE_REQUEST_NO_RESPONSE; }

    static tString typeName(teType type);
    static tString compressionName(teCompression compression);

    // Replaces the payload by its decoded form. The compression field is kept, so a second
    // call would decode again: call it once per payload. A form that announces more than
    // maxDecodedSize() bytes decodes to nothing, as a damaged one does.
    void deCompress();

    // The most bytes one compressed telegram may decode to, for every telegram of the
    // process; 0 (the default) sets no limit beyond the codecs' own bounds.
    static void setMaxDecodedSize(unsigned int bytes);
    static unsigned int maxDecodedSize();

protected:
    // deCompress with the decoded form written into spare's storage, which afterwards holds
    // the storage of the encoded form: a reader that keeps spare decodes without allocating.
    void deCompress(tBlob& spare);

    // Every header field but the payload, for telegrams built in reused objects or after
    // their construction.
    void setBasicHeader(unsigned int src, unsigned int dest, unsigned int id, unsigned int timestamp, teType type,
                        teCompression compression)
    {
        m_u32Src = src;
        m_u32Dest = dest;
        m_u32Id = id;
        m_u32Timestamp = timestamp;
        m_eType = type;
        m_eCompression = compression;
    }

    // The payload blob is made when first needed: a part whose bytes live elsewhere (and
    // many incoming parts do) then costs no blob at all.
    tBlob* ownPayload()
    {
        if (!m_pPayload) m_pPayload = new tBlob();
        return m_pPayload;
    }

    unsigned int m_u32Src;
    unsigned int m_u32Dest;
    unsigned int m_u32Id;
    unsigned int m_u32Timestamp;
    teType m_eType;
    teCompression m_eCompression;
    tBlob* m_pPayload;

private:
    static unsigned int s_u32MaxDecodedSize;
};

// One part of a telegram: the header, its 1-based number and whether it is the last, and
// its slice of the (possibly compressed) content. One part is one frame on the link.
class NK_API nk_telegramPart : public nk_basicTelegram
{
public:
    enum tePartInfo
    {
        PARTINFO_NOT_LAST_PART = 0x04,
        PARTINFO_LAST_PART = 0x08,
    };

    nk_telegramPart();
    explicit nk_telegramPart(nk_telegramPart* other);
    // Note the order: telegram id first, then the addresses. The payload bytes are copied.
    nk_telegramPart(unsigned int id, unsigned int src, unsigned int dest, unsigned int partId,
                    unsigned int timestamp, bool lastPart, tBlob* payload, teType type,
                    teCompression compression);
    ~nk_telegramPart() override = default;

    unsigned int partId() const { return m_u32PartId; }
    tePartInfo partInfoValue() const { return m_ePartInfo; }
    bool isLastPart() const { return m_ePartInfo == PARTINFO_LAST_PART; }
    static tString partInfo(tePartInfo info);

    // Part 1 marked last is a whole telegram: decodes the payload in place and gives it.
    // Any other part gives null and is left as it is.
    tBlob* isSinglePartTelegram();

    // A new part with this header that takes over the payload bytes; this payload is then
    // empty. Spares a copy of every payload when a receiver files the parts it reads.
    nk_telegramPart* detach();

    // The payload as a blob of its own. A part whose bytes live in its telegram's content
    // (see host) gets them copied into its own blob the first time this is asked for.
    tBlob* payload() override;
    // The payload bytes wherever they live, without making a copy.
    unsigned char const* payloadBytes() const;
    unsigned int payloadLength() const;

    // Appends one frame to out; false (and nothing appended) if out is null or the frame
    // would not fit a blob.
    bool serialize(tBlob* out);
    // The bytes serialize would append for this part.
    unsigned int serializedSize() const;

    // Reads the first frame at the front of stream into this part; true if it was valid.
    // Whenever a start byte is followed later by an end byte, the bytes up to and including
    // that end byte are removed, valid or not.
    bool streamContainsTelegram(tBlob* stream);
    // The same for a caller that already knows the indices of the stream's first start
    // byte and first end byte, so the stream is not searched again.
    bool streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex);
    // The same, but the payload is decoded straight onto the end of appendTo and this part
    // names that range instead of owning a copy (appendTo must outlive the part's use of
    // it); an invalid frame leaves appendTo as it was. For a receiver that joins parts.
    bool streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex, tBlob* appendTo);
    // The same for a caller that took endIndex from the frame's own length field (see
    // frameEndFromHeader) instead of searching the stream for it: the frame is read only if
    // no byte between the two indices is a start or end byte, which decoding checks as it
    // goes. If one is, nothing is read or removed, appendTo is as it was, false is returned
    // and *endUnconfirmed set: the caller must then search for the first end byte.
    bool streamContainsTelegram(tBlob* stream, unsigned int startIndex, unsigned int endIndex, tBlob* appendTo,
                                bool* endUnconfirmed);
    // Where the end byte of the frame that starts at startIndex lies if its length field is
    // right (0xFFFFFFFF while the stream holds too little of the frame to tell).
    static unsigned int frameEndFromHeader(tBlob const* stream, unsigned int startIndex);
    // Reads only the header of the frame between the two indices into this part (address,
    // ids, time stamp, flags), leaving the stream and the payload alone: a receiver can then
    // choose where the payload goes before decoding it. False when the frame is too short
    // to hold a header; the frame is not checked, streamContainsTelegram does that.
    bool peekHeader(tBlob const* stream, unsigned int startIndex, unsigned int endIndex);

private:
    friend class nk_telegram;
    friend class nk_protocol;
    enum { kFrameInvalid, kFrameValid, kFrameUnconfirmed };
    // With spare, a frame read on its own (no appendTo) is decoded into spare's storage,
    // which afterwards holds the storage of the part's previous payload: a reader that keeps
    // this part and spare from frame to frame reads small frames without allocating.
    int readFrame(tBlob* stream, unsigned int startIndex, unsigned int endIndex, tBlob* appendTo, bool checkBetween,
                  tBlob* spare = nullptr);
    void setHeader(unsigned int id, unsigned int src, unsigned int dest, unsigned int partId, unsigned int timestamp,
                   bool lastPart, teType type, teCompression compression);
    // isSinglePartTelegram, decoding through spare in the same way.
    tBlob* isSinglePartTelegram(tBlob& spare);
    // Appends the payload to target and names it there (see host), as if the frame had been
    // read with target as appendTo; for a reader that learns where the payload belongs only
    // after reading a small frame.
    void moveOnto(tBlob* target);
    // For a reader that keeps this part between polls: stops naming any telegram's content,
    // and gives back payload storage larger than keepBytes.
    void settle(std::size_t keepBytes);
    bool readBody(tBlob& body);
    // Makes the bytes [offset, offset + length) of host this part's payload without copying
    // them; host must outlive the part or the part must stop using it (payload() copies).
    void host(tBlob* host, unsigned int offset, unsigned int length);
    void copyHostedBytes();
    unsigned int hostedReadable() const;
    nk_telegramPart* headerCopy() const;
    bool readHeader(unsigned char const* b, unsigned int n, unsigned int& payloadLength);

    unsigned int m_u32PartId;
    tePartInfo m_ePartInfo;
    // A telegram cut into parts keeps its content in one blob and each part names its
    // range, so cutting copies nothing; null when the part owns its payload.
    tBlob* m_pHost = nullptr;
    unsigned int m_u32HostOffset = 0;
    unsigned int m_u32HostLength = 0;
};

// A whole telegram. Outgoing: the content, compressed when that pays, cut into parts,
// sent, and kept while a request waits for its response. Incoming: the parts of one
// multi-part telegram until the last one is in, then joined and decoded.
class NK_API nk_telegram : public nk_basicTelegram
{
public:
    typedef void (*tResponseCallback)(unsigned int address, tBlob* content, void* context, bool timedOut,
                                      void* userData);
    typedef unsigned int (*tSendFcn)(nk_server* server, void* ctx, unsigned char* data, unsigned int length,
                                     int* error);

    static unsigned int s_u32MaxPayloadSize;
    // For telegrams built afterwards, in every engine. 0 is ignored.
    static void setMaxPayloadSize(unsigned int size);

    // Outgoing. Content that is sent uncompressed is moved into the parts (the caller's blob
    // is empty afterwards); content that is compressed is left as it was.
    nk_telegram(unsigned int id, unsigned int src, unsigned int dest, tBlob* content, tResponseCallback callback,
                void* context, bool isResponse, void* userData, bool allowCompression);
    // Incoming: a receiving context opened by the first part that arrived.
    explicit nk_telegram(nk_telegramPart* first);
    // As above, but the part's payload bytes move into the part list instead of being
    // copied twice (into the list and into this telegram's payload, which stays empty: the
    // joined content replaces it anyway). For a receiver that refills its part.
    nk_telegram(nk_telegramPart* first, bool takePayload);
    ~nk_telegram() override;

    // Chooses the smaller of RLE and Huffman when it is strictly smaller than the content
    // (RLE on a tie), writes it to out and sets the compression; false when nothing pays.
    bool checkCompression(tBlob* content, tBlob* out);

    bool send(nk_server* server, void* ctx, tSendFcn sendFn);
    // As above, with the frames written into buffer (its bytes replaced), so that a sender
    // of many or large telegrams can keep one buffer instead of allocating one per send.
    bool send(nk_server* server, void* ctx, tSendFcn sendFn, tBlob* buffer);
    bool hasBeenSend() const { return m_bSent; }
    bool isOutgoingRequest(unsigned int address) const { return address == m_u32Src; }
    bool waitForResponse() const { return m_pCallback != nullptr; }

    void setTimeout_s(long long seconds) { m_i64Timeout_s = seconds; }
    long long timeout_s() const { return m_i64Timeout_s; }
    // Counted from the creation time stamp, not from the sending.
    bool timeout() const;

    void notifyResponse(unsigned int address, tBlob* content);
    void notifyTimeout();

    bool addTelegramPart(nk_telegramPart* part);
    // As addTelegramPart, but the payload bytes are moved out of part instead of copied.
    bool adoptTelegramPart(nk_telegramPart* part);
    // Incoming: where the payload of part partId is to be decoded when that part continues
    // the parts filed so far, all in order and joined in this telegram's payload (see
    // nk_telegramPart::streamContainsTelegram with appendTo); null when it does not, and
    // the part then brings a payload of its own. Joined in place, a complete telegram's
    // content needs no further copy.
    tBlob* joinedContentFor(unsigned int partId);
    bool lastPartPresent() const;
    bool isCorrupt();
    tBlob* getCompleteContent();
    static bool sortTelegrams(nk_telegramPart*& a, nk_telegramPart*& b);

    unsigned int partCount() const { return static_cast<unsigned int>(m_parts.size()); }
    nk_telegramPart* part(unsigned int index) const { return m_parts.get(index); }
    void* userData() const { return m_pUserData; }
    unsigned char sendRetries() const { return m_u8SendRetries; }

private:
    friend class nk_protocol;
    // What the outgoing constructor does after setting the fields; a part kept from an
    // earlier use (see reuse) carries the first part, and the compressed form is written
    // into its payload storage.
    void fill(tBlob* content, nk_telegramPart* kept);
    void split(tBlob* work, nk_telegramPart* kept);
    // For an engine that keeps one finished outgoing telegram to build the next one in:
    // prepareForReuse is false (and the telegram should be deleted) unless it is a small
    // telegram of at most one part, whose storage is then worth keeping; reuse makes it
    // exactly what the outgoing constructor would have made, keeping its part object and
    // the part's payload storage, so that a small telegram allocates nothing.
    bool prepareForReuse(std::size_t keepBytes);
    void reuse(unsigned int id, unsigned int src, unsigned int dest, tBlob* content, tResponseCallback callback,
               void* context, bool isResponse, void* userData, bool allowCompression);
    bool isDuplicate(nk_telegramPart* part);
    void filed(nk_telegramPart* part);
    void giveBackJoinedBytes(nk_telegramPart* part);

    tVector<nk_telegramPart*> m_parts;
    bool m_bSent;
    tResponseCallback m_pCallback;
    void* m_pContext;
    long long m_i64Timeout_s;
    void* m_pUserData;
    bool m_bCompressionAllowed;
    unsigned char m_u8SendRetries;
    // Incoming: parts are joined in the payload as they arrive while every part filed
    // continues the ones before it; outgoing telegrams keep their parts' content there.
    bool m_bIncoming;
    // Highest part id filed so far: parts arrive in order, so a higher id cannot be a
    // duplicate and needs no look-up.
    unsigned int m_u32HighestPartId;
    // (part id, source, destination) of every part filed, built when the first part arrives
    // that is not above the highest: a peer sending ids downwards or repeating them then
    // costs a look-up per part, not a search through the whole list.
    typedef std::tuple<unsigned int, unsigned int, unsigned int> tPartKey;
    std::unique_ptr<std::set<tPartKey>> m_pFiled;
};

#endif
