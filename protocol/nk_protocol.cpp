#include "nk_protocol.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace
{
const unsigned int kNotFound = 0xFFFFFFFFu;
const unsigned char kFrameStart = 0x01;
const unsigned char kFrameEnd = 0x02;
// Buffers up to this size are allocated afresh when needed; larger ones are kept while
// consecutive polls need them (see nk_protocol's members), so an engine that once took or
// sent a large telegram does not hold that much while idle.
const unsigned int kLargeBuffer = 65536;
// The frames of small telegrams are written into a buffer the engine keeps while it holds
// no more than this; larger ones are given back after the round.
const unsigned int kSmallFramesKept = 1024;
// A stream holding no more than this behind a start byte is searched for the end byte; only
// larger ones are worth the look at the frame's length field.
const unsigned int kSearchedAnyway = 4096;
// Frames up to this many encoded bytes are decoded into storage the engine keeps, before
// their header says whether the payload belongs onto an open context.
const unsigned int kSmallFrame = 1024;

// For the counts that change only under a lock and are also read without it: a load and a
// store, since no other thread changes them meanwhile, instead of a locked add.
void addToCount(std::size_t& count, std::size_t delta)
{
    __atomic_store_n(&count, __atomic_load_n(&count, __ATOMIC_RELAXED) + delta, __ATOMIC_RELAXED);
}

template <typename T>
void eraseNulls(tVector<T*>& list)
{
    list.erase(std::remove(list.begin(), list.end(), static_cast<T*>(nullptr)), list.end());
}

// A lock that can be given back before the end of its scope.
class HeldLock
{
public:
    HeldLock() = default;
    HeldLock(HeldLock const&) = delete;
    HeldLock& operator=(HeldLock const&) = delete;
    ~HeldLock() { release(); }
    void take(tCriticalSection& cs)
    {
        cs.enter(nullptr);
        m_cs = &cs;
    }
    void release()
    {
        if (m_cs) m_cs->leave();
        m_cs = nullptr;
    }

private:
    tCriticalSection* m_cs = nullptr;
};

std::tuple<unsigned int, unsigned int, unsigned int> contextKey(nk_basicTelegram const* t)
{
    return std::make_tuple(t->telegramId(), t->sourceAddress(), t->destinationAddress());
}
}

unsigned int nk_protocol::u32TlgNumber = 0;
nk_protocol::tProtLogFcn nk_protocol::m_pFcnLog = nullptr;

nk_protocol::nk_protocol(unsigned int ownAddress, tRecvCallback recvCb, void* context, unsigned int defaultTimeout_s,
                         tProtLogFcn logFcn, void* logContext, tOutputFcn logOutput)
    : tLog(logContext, logOutput), m_u32OwnAddress(ownAddress), m_csIncoming(true), m_csOutgoing(true),
      m_pRecvCb(recvCb), m_pStream(new tBlob()), m_bNewData(false), m_pContext(context),
      m_u32DefaultTimeout_s(defaultTimeout_s), m_bCompressionAllowed(true), m_incomingHoles(0), m_outgoingHoles(0), m_outgoingLength(0), m_oldestIncoming(0), m_incomingBytes(0),
      m_u32MaxIncomingContexts(0), m_u64MaxIncomingBytes(0),
      m_u32Searched(0),
      m_u32FirstStart(kNotFound), m_u32FirstEnd(kNotFound), m_bEndFromHeader(false), m_pSendBuffer(nullptr), m_pContentSpare(nullptr),
      m_bSpareFromThisPoll(false), m_u32StreamPeak(0), m_bParsing(false), m_pSpareTelegram(nullptr)
{
    // Engines may be built on different threads; the hook is one word shared by all.
    __atomic_store_n(&m_pFcnLog, logFcn, __ATOMIC_RELEASE);
}

nk_protocol::~nk_protocol()
{
    {
        tCriticalSectionLock lock(m_csIncoming);
        for (nk_telegram* t : m_incoming) delete t;
        m_incoming.clear();
        m_incomingIndex.clear();
        __atomic_store_n(&m_incomingHoles, std::size_t(0), __ATOMIC_RELAXED);
        m_incomingBytes = 0;
    }
    {
        tCriticalSectionLock lock(m_csOutgoing);
        for (nk_telegram* t : m_outgoing) delete t;
        m_outgoing.clear();
    }
    {
        tCriticalSectionLock lock(m_csOutgoing);
        delete m_pSpareTelegram;
    }
    delete m_pStream;
    delete m_pSendBuffer;
    delete m_pContentSpare;
}

void nk_protocol::setMaxPayloadSize(unsigned int size)
{
    nk_telegram::setMaxPayloadSize(size);
}

void nk_protocol::setMaxDecodedSize(unsigned int bytes)
{
    nk_basicTelegram::setMaxDecodedSize(bytes);
}

void nk_protocol::logProt(char const* format, ...)
{
    tProtLogFcn fcn = __atomic_load_n(&m_pFcnLog, __ATOMIC_ACQUIRE);
    if (!fcn) return;
    va_list args;
    va_start(args, format);
    fcn(format, args);
    va_end(args);
}

void nk_protocol::enqueue_TS(tBlob* content, unsigned int destAddress, tResponseCallback responseCb,
                             unsigned int timeout_s, void* userData)
{
    nk_telegram* telegram = nullptr;
    {
        tCriticalSectionLock lock(m_csOutgoing);
        // The counter is shared by every engine, and engines on different threads each hold
        // only their own outgoing lock, so the increment itself is atomic as well.
        const unsigned int id = __atomic_add_fetch(&u32TlgNumber, 1u, __ATOMIC_RELAXED);
        try {
            telegram = makeOutgoing(id, destAddress, content, responseCb, false, userData);
            // Set before the telegram is visible to the polling thread, which may send it,
            // time it out or delete it as soon as the lock is free.
            telegram->setTimeout_s(timeout_s != 0 ? timeout_s : m_u32DefaultTimeout_s);
            queueOutgoing(telegram);
        } catch (std::bad_alloc const&) {
            delete telegram;
            telegram = nullptr;
        }
    }
    if (!telegram) log("prot: appending telegram to queue failed");
}

nk_telegram* nk_protocol::makeOutgoing(unsigned int id, unsigned int destAddress, tBlob* content,
                                       tResponseCallback responseCb, bool isResponse, void* userData)
{
    nk_telegram* t = m_pSpareTelegram;
    m_pSpareTelegram = nullptr;
    if (!t)
        return new nk_telegram(id, m_u32OwnAddress, destAddress, content, responseCb, m_pContext, isResponse, userData,
                               m_bCompressionAllowed);
    std::unique_ptr<nk_telegram> reused(t);
    reused->reuse(id, m_u32OwnAddress, destAddress, content, responseCb, m_pContext, isResponse, userData,
                  m_bCompressionAllowed);
    return reused.release();
}

void nk_protocol::retireOutgoing(nk_telegram* t)
{
    if (!m_pSpareTelegram && t->prepareForReuse(kSmallFramesKept))
        m_pSpareTelegram = t;
    else
        delete t;
}

void nk_protocol::respond_TS(tBlob* content, unsigned int destAddress, unsigned int telegramId)
{
    tCriticalSectionLock lock(m_csOutgoing);
    log("prot: send response (id: %d; src: %d; dest: %d)", telegramId, m_u32OwnAddress, destAddress);
    nk_telegram* telegram = nullptr;
    try {
        telegram = makeOutgoing(telegramId, destAddress, content, nullptr, true, nullptr);
        queueOutgoing(telegram);
    } catch (std::bad_alloc const&) {
        delete telegram;
        log("prot: appending telegram to queue failed");
    }
}

void nk_protocol::poll(nk_server* server, void* ctx, tLinkFcn sendFn, tLinkFcn recvFn)
{
    const unsigned int sent = sendAndTimeOut(server, ctx, sendFn);
    eraseDeletedTelegrams_TS();
    if (recvFn) recvData(server, ctx, recvFn);
    unsigned int parsed = 0;
    if (m_bNewData) {
        m_bNewData = false;
        parsed = m_pStream->size();
        parseStream();
    }
    eraseDeletedTelegrams_TS();
    releaseUnneededBuffers(sent, parsed);
}

void nk_protocol::releaseUnneededBuffers(unsigned int sentBytes, unsigned int parsedBytes)
{
    if (m_pSendBuffer && sentBytes <= kLargeBuffer) {
        delete m_pSendBuffer;
        m_pSendBuffer = nullptr;
    }
    if (m_pContentSpare && !m_bSpareFromThisPoll) {
        delete m_pContentSpare;
        m_pContentSpare = nullptr;
    }
    m_bSpareFromThisPoll = false;
    if (parsedBytes > m_u32StreamPeak) m_u32StreamPeak = parsedBytes;
    if (m_u32StreamPeak > kLargeBuffer && parsedBytes <= kLargeBuffer && m_pStream->size() == 0) {
        tBlob released;
        m_pStream->swap(released);
        m_u32StreamPeak = 0;
    }
}

unsigned int nk_protocol::sendAndTimeOut(nk_server* server, void* ctx, tLinkFcn sendFn)
{
    // One frame buffer for every telegram of this round; a large one is kept for the next,
    // and so is a small one, which an idle engine can afford.
    tBlob& local = m_smallFrames;
    tBlob* frames = m_pSendBuffer ? m_pSendBuffer : &local;
    unsigned int largest = 0;
    // An empty queue needs no lock: a telegram that another thread queues meanwhile is
    // sent by the next poll, as if it had been queued just after this one.
    if (__atomic_load_n(&m_outgoingLength, __ATOMIC_RELAXED) == 0) return 0;
    tCriticalSectionLock lock(m_csOutgoing);
    // By index: a callback may enqueue, which appends to this very queue.
    for (std::size_t i = 0; i < m_outgoing.size(); ++i) {
        nk_telegram* t = m_outgoing[i];
        if (!t) continue;
        if (t->hasBeenSend()) {
            if (t->timeout()) {
                log("outgoing request timed out, notify timeout and remove (tid: %u)", t->telegramId());
                markOutgoingDeleted(i);
                t->notifyTimeout();
                retireOutgoing(t);
            }
            continue;
        }
        if (!sendFn) {
            log("can't send telegram, no send method, remove telegram");
            markOutgoingDeleted(i);
            retireOutgoing(t);
            continue;
        }
        const bool sent = t->send(server, ctx, sendFn, frames);
        if (frames->size() > largest) largest = frames->size();
        frames->clear();
        if (!sent) {
            log("sending telegram failed, remove it (tid: %u)", t->telegramId());
            markOutgoingDeleted(i);
            retireOutgoing(t);
            continue;
        }
        if (t->isResponse()) {
            log("send response telegram, remove it (tid: %d; src: %d; dest: %d)", t->telegramId(), t->sourceAddress(),
                t->destinationAddress());
        } else if (t->isRequestWithoutResponse()) {
            log("send request without response required, remove it (tid: %d; src: %d; dest: %d)", t->telegramId(),
                t->sourceAddress(), t->destinationAddress());
        } else {
            // The stray apostrophe is part of the text that log readers match.
            log("send request with response required, don't remove' (tid: %d; src: %d; dest: %d)", t->telegramId(),
                t->sourceAddress(), t->destinationAddress());
            continue;
        }
        markOutgoingDeleted(i);
        retireOutgoing(t);
    }
    // Compacted while the lock is held anyway, rather than by a second round trip to it.
    compactOutgoing(false);
    if (!m_pSendBuffer && largest > kLargeBuffer) {
        m_pSendBuffer = new tBlob();
        m_pSendBuffer->swap(local);
    }
    if (largest > kSmallFramesKept) tBlob().swap(local);
    return largest;
}

unsigned int nk_protocol::recvData(nk_server* server, void* ctx, tLinkFcn recvFn)
{
    if (!recvFn) return 0;
    // On the stack, not in the engine: idle engines stay small.
    unsigned char buffer[RECV_CHUNK];
    unsigned int total = 0;
    unsigned int n = 0;
    do {
        n = recvFn(server, ctx, buffer, RECV_CHUNK, nullptr);
        if (n > RECV_CHUNK) n = RECV_CHUNK;  // a link function that claims too much
        m_pStream->append(buffer, n);
        total += n;
    } while (n == RECV_CHUNK);
    if (total != 0) m_bNewData = true;
    return total;
}

void nk_protocol::pushData(unsigned char* data, unsigned int length)
{
    if (!data || length == 0) return;
    m_pStream->append(data, length);
    m_bNewData = true;
}

bool nk_protocol::frameMayBeReady()
{
    const unsigned int size = m_pStream->size();
    if (m_u32Searched < size) {
        unsigned char const* bytes = m_pStream->getBuffer();
        auto find = [bytes](unsigned char b, unsigned int from, unsigned int to) {
            void const* hit = std::memchr(bytes + from, b, to - from);
            return hit ? static_cast<unsigned int>(static_cast<unsigned char const*>(hit) - bytes) : kNotFound;
        };
        if (m_u32FirstStart == kNotFound) m_u32FirstStart = find(kFrameStart, m_u32Searched, size);
        if (m_u32FirstEnd == kNotFound) {
            unsigned int from = m_u32Searched;
            if (m_u32FirstStart != kNotFound && m_u32Searched <= m_u32FirstStart &&
                size - m_u32FirstStart > kSearchedAnyway) {
                // Nothing after the start byte searched yet. Unless an end byte comes first,
                // the frame's length field says where its end byte must be; reading the frame
                // checks that no other start or end byte lies before it (see parseStream), so
                // the bytes of a large frame are not searched in a pass of their own.
                m_u32FirstEnd = find(kFrameEnd, m_u32Searched, m_u32FirstStart);
                const unsigned int end = nk_telegramPart::frameEndFromHeader(m_pStream, m_u32FirstStart);
                if (m_u32FirstEnd == kNotFound && end < size && bytes[end] == kFrameEnd) {
                    m_u32FirstEnd = end;
                    m_bEndFromHeader = true;
                }
                from = m_u32FirstStart + 1;
            }
            if (m_u32FirstEnd == kNotFound) m_u32FirstEnd = find(kFrameEnd, from, size);
        }
        m_u32Searched = m_bEndFromHeader ? m_u32FirstStart + 1 : size;
    }
    // Anything else leaves the stream as it is; streamContainsTelegram would say false.
    return m_u32FirstStart != kNotFound && m_u32FirstEnd != kNotFound && m_u32FirstEnd > m_u32FirstStart;
}

bool nk_protocol::joinsContext(nk_telegramPart const& part) const
{
    // A whole telegram in one frame, or one for another instance, joins nothing.
    const unsigned int dest = part.destinationAddress();
    return !(part.partId() == 1 && part.isLastPart()) &&
           (dest == m_u32OwnAddress || dest == nk_basicTelegram::ADDRESS_BROADCAST);
}

tBlob* nk_protocol::joinTarget(nk_telegramPart& part, tBlob& scratch)
{
    if (!joinsContext(part)) return nullptr;
    auto entry = m_incomingIndex.find(contextKey(&part));
    if (entry != m_incomingIndex.end()) return m_incoming[entry->second]->joinedContentFor(part.partId());
    if (part.partId() != 1) return nullptr;
    // The first part of a new context: decoded into storage a previous large telegram left,
    // or into the caller's scratch blob; the new context takes the storage over.
    tBlob* storage = m_pContentSpare ? m_pContentSpare : &scratch;
    storage->clear();
    return storage;
}

void nk_protocol::parseStream()
{
    if (m_bParsing) {
        // A poll from inside a receive callback: the outer loop is still using the engine's
        // own part and spare storage, so this one reads with its own.
        nk_telegramPart part;
        tBlob spare;
        parseFrames(part, spare);
        return;
    }
    struct Parsing
    {
        explicit Parsing(nk_protocol& e) : engine(e) { engine.m_bParsing = true; }
        ~Parsing()
        {
            engine.m_bParsing = false;
            // Storage for small frames and their contents is kept for the next ones; what a
            // large content left is given back, so idle engines stay small.
            engine.m_readPart.settle(kSmallFramesKept);
            if (engine.m_readSpare.capacity() > kSmallFramesKept) tBlob().swap(engine.m_readSpare);
        }
        nk_protocol& engine;
    } parsing(*this);
    parseFrames(m_readPart, m_readSpare);
}

void nk_protocol::parseFrames(nk_telegramPart& part, tBlob& spare)
{
    tBlob scratch;
    // Deliberate: the loop ends at the first invalid frame, and frames behind it wait for
    // the next bytes to arrive. Peers see the same pacing from every implementation.
    while (frameMayBeReady()) {
        // A part that continues an open context in order is decoded straight onto the end of
        // the context's joined content. The context must not go away meanwhile: other
        // threads may set limits that drop contexts, so the incoming lock stays held from
        // the look-up until the part is filed.
        HeldLock incomingLock;
        tBlob* target = nullptr;
        // A small frame is read whole first, without the look at its header that a large
        // one needs to be decoded in place; its payload is appended to its context after.
        const bool small = m_u32FirstEnd - m_u32FirstStart <= kSmallFrame;
        if (!small && part.peekHeader(m_pStream, m_u32FirstStart, m_u32FirstEnd) && joinsContext(part)) {
            incomingLock.take(m_csIncoming);
            target = joinTarget(part, scratch);
            if (!target) incomingLock.release();
        }
        const int read = part.readFrame(m_pStream, m_u32FirstStart, m_u32FirstEnd, target, m_bEndFromHeader,
                                        small ? &spare : nullptr);
        m_bEndFromHeader = false;
        if (read == nk_telegramPart::kFrameUnconfirmed) {
            // Another start or end byte lies inside: the frame ends at the first end byte,
            // which is searched for from the start byte on, as for any other frame.
            m_u32FirstEnd = kNotFound;
            continue;
        }
        m_u32Searched = 0;
        m_u32FirstStart = m_u32FirstEnd = kNotFound;
        if (read != nk_telegramPart::kFrameValid) break;
        if (small && joinsContext(part)) {
            incomingLock.take(m_csIncoming);
            target = joinTarget(part, scratch);
            if (target)
                part.moveOnto(target);
            else
                incomingLock.release();
        }

        log("stream contains data");
        const unsigned int id = part.telegramId();
        const unsigned int src = part.sourceAddress();
        const unsigned int dest = part.destinationAddress();
        if (dest == nk_basicTelegram::ADDRESS_BROADCAST) {
            log("received broadcast telegram (tlg-id: %d)", id);
        } else if (dest == m_u32OwnAddress) {
            log("received telegram for me (tlg-id: %d)", id);
        } else {
            log("received telegram is addressed to another instance (%d -> %d; own address: %d)", src, dest,
                m_u32OwnAddress);
            continue;
        }

        nk_telegram* complete = nullptr;
        tBlob* content = part.isSinglePartTelegram(spare);
        if (content) {
            log("received single part telegram (tlg-id: %u)", id);
        } else {
            // The scratch part is refilled by the next frame, so its payload can be moved.
            content = fileMultiPart(&part, &complete, true);
            if (target == m_pContentSpare && m_pContentSpare && m_pContentSpare->size() == 0) {
                // A new context took the spare storage over (and left it its empty one).
                delete m_pContentSpare;
                m_pContentSpare = nullptr;
            }
            if (!content) {
                log("received telegram with multiple parts - incomplete (tlg-id: %u)", id);
                continue;
            }
            log("received telegram with multiple parts - complete (tlg-id: %u)", id);
        }
        incomingLock.release();
        // Deleted here too if a callback throws.
        std::unique_ptr<nk_telegram> handled(complete);

        if (part.isResponse()) {
            handleResponse(part, content);
        } else if (m_pRecvCb) {
            // Deliberate: the request's type is not consulted. Whatever the callback leaves
            // in the content is the answer, even to a request that asked for none.
            m_pRecvCb(src, content, m_pContext);
            if (content->size() != 0)
                respond_TS(content, src, id);
            else
                log("no response to request required");
        }
        if (complete) removeHandled(handled.release(), id);
    }
}

void nk_protocol::handleResponse(nk_telegramPart& part, tBlob* content)
{
    bool found = false;
    {
        tCriticalSectionLock lock(m_csOutgoing);
        for (std::size_t i = 0; i < m_outgoing.size(); ++i) {
            nk_telegram* t = m_outgoing[i];
            // Only the id is compared, neither address: an answer from whoever holds the
            // request's id is its answer.
            if (!t || !t->waitForResponse() || t->telegramId() != part.telegramId()) continue;
            log("handle response (size %u)", content->size());
            markOutgoingDeleted(i);
            t->notifyResponse(part.sourceAddress(), content);
            log("remove request");
            retireOutgoing(t);
            // Usually the last entry (one request waiting): removed at once, so that the
            // poll takes no lock again to compact the queue.
            compactOutgoing(true);
            found = true;
            break;
        }
    }
    if (!found) log("did not find request for response");
}

void nk_protocol::removeHandled(nk_telegram* complete, unsigned int id)
{
    // The telegram left the open contexts when it completed (see fileMultiPart).
    log("telegram handled, remove it (tlg-id: %d)", id);
    keepContentStorage(complete);
    delete complete;
}

void nk_protocol::keepContentStorage(nk_telegram* complete)
{
    uint64_t joined = 0;
    for (unsigned int i = 0; i < complete->partCount(); ++i)
        if (nk_telegramPart* p = complete->part(i)) joined += p->payloadLength();
    if (joined <= kLargeBuffer) return;
    // Whatever the receive callback left in the content is of no further use.
    if (!m_pContentSpare) m_pContentSpare = new tBlob();
    m_pContentSpare->swap(*complete->payload());
    m_pContentSpare->clear();
    m_bSpareFromThisPoll = true;
}

tBlob* nk_protocol::checkTlgPartMatch_TS(nk_telegramPart* part, nk_telegram** complete)
{
    return fileMultiPart(part, complete, false);
}

tBlob* nk_protocol::fileMultiPart(nk_telegramPart* part, nk_telegram** complete, bool takePayload)
{
    if (!part) return nullptr;
    if (complete) *complete = nullptr;
    tCriticalSectionLock lock(m_csIncoming);
    const unsigned int partBytes = part->payloadLength();
    auto entry = m_incomingIndex.find(contextKey(part));
    if (entry != m_incomingIndex.end()) {
        const std::size_t index = entry->second;
        nk_telegram* t = m_incoming[index];
        const bool added = takePayload ? t->adoptTelegramPart(part) : t->addTelegramPart(part);
        if (!added) return nullptr;  // a duplicate
        m_incomingBytes += partBytes;
        if (!t->lastPartPresent()) {
            log("received telegram is NOT complete now");
            keepIncomingWithinLimits();
            return nullptr;
        }
        if (t->isCorrupt()) {
            log("received complete telegram is corrupt, remove it (tlg.-id: %u)", t->telegramId());
            dropIncoming(index);
            return nullptr;
        }
        if (takePayload && m_pContentSpare && t->payload()->size() == 0) {
            // The telegram's own payload is replaced by the joined content: give it storage
            // that a previous large telegram left, so joining maps no fresh pages.
            t->payload()->swap(*m_pContentSpare);
            delete m_pContentSpare;
            m_pContentSpare = nullptr;
        }
        tBlob* content = t->getCompleteContent();
        if (!content) {
            log("received telegram is now complete, but has no content, remove it (tlg.-id: %u)", t->telegramId());
            dropIncoming(index);
            return nullptr;
        }
        log("received telegram is now complete (tlg.-id: %u, content: %d bytes)", t->telegramId(), content->size());
        if (complete) *complete = t;
        if (takePayload) {
            // Handed to the polling thread, which removes it once handled: from here on it is
            // no open context, so bounds that another thread sets cannot drop it while the
            // receive callback reads its content.
            releaseIncoming(index);
        }
        return content;
    }
    // Deliberate: the first part of a new context is never checked for completeness.
    log("received telegram part for new context (tlg.-id: %u)", part->telegramId());
    m_incoming.push_back(new nk_telegram(part, takePayload));
    m_incomingIndex[contextKey(part)] = m_incoming.size() - 1;
    m_incomingBytes += partBytes;
    keepIncomingWithinLimits();
    return nullptr;
}

void nk_protocol::setIncomingLimits_TS(unsigned int maxContexts, unsigned long long maxBytes)
{
    tCriticalSectionLock lock(m_csIncoming);
    m_u32MaxIncomingContexts = maxContexts;
    m_u64MaxIncomingBytes = maxBytes;
    keepIncomingWithinLimits();
}

// Drops open contexts, oldest first, while there are more than the limits allow. New
// contexts join at the end of the list, so the oldest is found from a cursor that only
// moves on (it restarts when the list is compacted).
void nk_protocol::keepIncomingWithinLimits()
{
    auto over = [this] {
        const std::size_t open = m_incoming.size() - m_incomingHoles;
        return (m_u32MaxIncomingContexts != 0 && open > m_u32MaxIncomingContexts) ||
               (m_u64MaxIncomingBytes != 0 && m_incomingBytes > m_u64MaxIncomingBytes);
    };
    while (over() && m_oldestIncoming < m_incoming.size()) {
        if (m_incoming[m_oldestIncoming] == nullptr) {
            ++m_oldestIncoming;
            continue;
        }
        log("open incoming telegrams over the limit, drop the oldest (tlg.-id: %u)",
            m_incoming[m_oldestIncoming]->telegramId());
        dropIncoming(m_oldestIncoming);
    }
}

nk_telegram* nk_protocol::releaseIncoming(std::size_t index)
{
    nk_telegram* t = m_incoming[index];
    m_incomingIndex.erase(contextKey(t));
    for (unsigned int i = 0; i < t->partCount(); ++i)
        if (nk_telegramPart* p = t->part(i)) m_incomingBytes -= p->payloadLength();
    m_incoming[index] = nullptr;
    addToCount(m_incomingHoles, 1);
    return t;
}

void nk_protocol::dropIncoming(std::size_t index)
{
    delete releaseIncoming(index);
}

void nk_protocol::markOutgoingDeleted(std::size_t index)
{
    m_outgoing[index] = nullptr;
    addToCount(m_outgoingHoles, 1);
}

void nk_protocol::queueOutgoing(nk_telegram* t)
{
    m_outgoing.push_back(t);
    __atomic_store_n(&m_outgoingLength, m_outgoing.size(), __ATOMIC_RELAXED);
}

void nk_protocol::compactOutgoing(bool tailOnly)
{
    if (m_outgoingHoles == 0) return;
    if (tailOnly) {
        std::size_t removed = 0;
        for (; !m_outgoing.empty() && !m_outgoing.back(); ++removed) m_outgoing.pop_back();
        addToCount(m_outgoingHoles, 0 - removed);
    } else {
        eraseNulls(m_outgoing);
        __atomic_store_n(&m_outgoingHoles, std::size_t(0), __ATOMIC_RELAXED);
    }
    __atomic_store_n(&m_outgoingLength, m_outgoing.size(), __ATOMIC_RELAXED);
}

void nk_protocol::eraseDeletedTelegrams_TS()
{
    // Most polls delete nothing; the counts of deleted entries tell, without either lock, that
    // there is nothing to compact. A count read just before another thread deletes an entry
    // only leaves that entry to the next call.
    if (__atomic_load_n(&m_incomingHoles, __ATOMIC_RELAXED) != 0) {
        tCriticalSectionLock lock(m_csIncoming);
        // Compacting renumbers every context behind the first hole, so it waits until the
        // holes are at least half of the list: each compaction then costs no more than the
        // drops since the last one, however the contexts complete.
        if (m_incomingHoles != 0 && m_incomingHoles * 2 >= m_incoming.size()) {
            eraseNulls(m_incoming);
            for (std::size_t i = 0; i < m_incoming.size(); ++i) m_incomingIndex[contextKey(m_incoming[i])] = i;
            __atomic_store_n(&m_incomingHoles, std::size_t(0), __ATOMIC_RELAXED);
            m_oldestIncoming = 0;
        }
    }
    if (__atomic_load_n(&m_outgoingHoles, __ATOMIC_RELAXED) == 0) return;
    tCriticalSectionLock lock(m_csOutgoing);
    compactOutgoing(false);
}

unsigned int nk_protocol::queuedTelegrams_TS()
{
    tCriticalSectionLock lock(m_csOutgoing);
    return static_cast<unsigned int>(std::count_if(m_outgoing.begin(), m_outgoing.end(),
                                                   [](nk_telegram* t) { return t != nullptr; }));
}

unsigned int nk_protocol::incomingTelegrams_TS()
{
    tCriticalSectionLock lock(m_csIncoming);
    return static_cast<unsigned int>(std::count_if(m_incoming.begin(), m_incoming.end(),
                                                   [](nk_telegram* t) { return t != nullptr; }));
}
