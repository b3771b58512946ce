#ifndef NK_PROTOCOL_H
#define NK_PROTOCOL_H

#include <cstdarg>
#include <cstddef>
#include <map>
#include <tuple>

#include "nkExport.h"
#include "nk_telegram.h"
#include "tBlob.h"
#include "tCriticalSection.h"
#include "tLog.h"
#include "tVector.h"

// One protocol instance with its own address on a byte-stream link. The application
// queues content with enqueue_TS, hands over received bytes (a receive function given to
// poll, or pushData) and calls poll regularly; complete requests reach the receive
// callback, responses and time-outs the callback of the request they belong to.
//
// Threads: poll, recvData, pushData and every callback run on the polling thread;
// enqueue_TS and respond_TS may be called from any thread. Response and time-out
// callbacks run with the outgoing lock held (it is re-entrant, so they may enqueue); the
// receive callback runs with no lock held.
class NK_API nk_protocol : public tLog
{
public:
    typedef void (*tRecvCallback)(unsigned int srcAddress, tBlob* content, void* context);
    typedef nk_telegram::tResponseCallback tResponseCallback;
    // The shape of both link functions: (server, ctx, buffer, length, error) -> bytes moved.
    // A send function that returns 0 stores an error code; 11 (EAGAIN) means try again.
    // The receive function returns 0 when nothing is waiting and gets a null error pointer.
    typedef unsigned int (*tLinkFcn)(nk_server* server, void* ctx, unsigned char* data, unsigned int length,
                                     int* error);
    typedef void (*tProtLogFcn)(char const* format, va_list args);

    static const unsigned int RECV_CHUNK = 32768;

    // The last telegram id handed out, shared by every engine of the process.
    static unsigned int u32TlgNumber;
    // The hook behind logProt; the last engine constructed sets it.
    static tProtLogFcn m_pFcnLog;

    nk_protocol(unsigned int ownAddress, tRecvCallback recvCb, void* context, unsigned int defaultTimeout_s,
                tProtLogFcn logFcn, void* logContext, tOutputFcn logOutput);
    // Pending requests are dropped without calling their callbacks.
    ~nk_protocol() override;
    nk_protocol(nk_protocol const&) = delete;
    nk_protocol& operator=(nk_protocol const&) = delete;

    // Queues a request (content that is sent uncompressed is consumed). With a callback it
    // asks for a response and the callback is called at most once, with the response or on
    // time-out (timeout_s 0: the default; counted from now, not from the sending); never if
    // the request cannot be sent or the engine is destroyed first. Without one no response
    // is expected.
    void enqueue_TS(tBlob* content, unsigned int destAddress, tResponseCallback responseCb, unsigned int timeout_s,
                    void* userData);
    void respond_TS(tBlob* content, unsigned int destAddress, unsigned int telegramId);

    // One round: send and time out queued telegrams, read the link, handle whole frames.
    void poll(nk_server* server, void* ctx, tLinkFcn sendFn, tLinkFcn recvFn);
    unsigned int recvData(nk_server* server, void* ctx, tLinkFcn recvFn);
    void pushData(unsigned char* data, unsigned int length);

    tBlob* checkTlgPartMatch_TS(nk_telegramPart* part, nk_telegram** complete);
    void eraseDeletedTelegrams_TS();

    static void setMaxPayloadSize(unsigned int size);
    // Bounds on the incomplete multi-part telegrams this engine keeps: how many contexts are
    // open and how many payload bytes their parts hold (0: no bound, the default). A part
    // that would pass either bound makes the engine drop open contexts, oldest first, as
    // if they had never been opened; a context that a part completes is not dropped.
    void setIncomingLimits_TS(unsigned int maxContexts, unsigned long long maxBytes);
    // The most bytes one compressed telegram may decode to, for the whole process (0: no
    // bound, the default); see nk_basicTelegram::setMaxDecodedSize.
    static void setMaxDecodedSize(unsigned int bytes);
    static void logProt(char const* format, ...) __attribute__((format(printf, 1, 2)));

    unsigned int ownAddress() const { return m_u32OwnAddress; }
    // Bytes received and not yet cut into frames.
    unsigned int pendingStreamBytes() const { return m_pStream->size(); }
    unsigned int queuedTelegrams_TS();
    unsigned int incomingTelegrams_TS();

private:
    // Gives the bytes of the largest telegram sent.
    unsigned int sendAndTimeOut(nk_server* server, void* ctx, tLinkFcn sendFn);
    void parseStream();
    void parseFrames(nk_telegramPart& part, tBlob& spare);
    bool joinsContext(nk_telegramPart const& part) const;
    tBlob* joinTarget(nk_telegramPart& part, tBlob& scratch);
    void handleResponse(nk_telegramPart& part, tBlob* content);
    tBlob* fileMultiPart(nk_telegramPart* part, nk_telegram** complete, bool takePayload);
    void dropIncoming(std::size_t index);
    nk_telegram* releaseIncoming(std::size_t index);
    void keepIncomingWithinLimits();
    void removeHandled(nk_telegram* complete, unsigned int id);
    void keepContentStorage(nk_telegram* complete);
    bool frameMayBeReady();
    void markOutgoingDeleted(std::size_t index);
    // Under the outgoing lock: appends to the queue, and removes deleted entries, all or
    // only those at its end.
    void queueOutgoing(nk_telegram* t);
    void compactOutgoing(bool tailOnly);
    // Under the outgoing lock: a new outgoing telegram, built in the one kept for reuse if
    // there is one, and the end of one, which is kept for the next if it is small.
    nk_telegram* makeOutgoing(unsigned int id, unsigned int destAddress, tBlob* content, tResponseCallback responseCb,
                              bool isResponse, void* userData);
    void retireOutgoing(nk_telegram* t);
    void releaseUnneededBuffers(unsigned int sentBytes, unsigned int parsedBytes);

    unsigned int m_u32OwnAddress;
    tCriticalSection m_csIncoming;
    tVector<nk_telegram*> m_incoming;
    tCriticalSection m_csOutgoing;
    tVector<nk_telegram*> m_outgoing;
    tRecvCallback m_pRecvCb;
    tBlob* m_pStream;
    bool m_bNewData;
    void* m_pContext;
    unsigned int m_u32DefaultTimeout_s;
    bool m_bCompressionAllowed;

    // Where each open incoming context sits in the incoming list, by (telegram id, source,
    // destination): a peer that opens many contexts does not make every later part search
    // them all. Guarded by the incoming lock. Dropped contexts leave null slots, counted in
    // m_incomingHoles; the list is compacted and renumbered once they are half of it.
    typedef std::tuple<unsigned int, unsigned int, unsigned int> tContextKey;
    std::map<tContextKey, std::size_t> m_incomingIndex;
    std::size_t m_incomingHoles;       // read without the lock by eraseDeletedTelegrams_TS
    std::size_t m_outgoingHoles;       // null entries in the outgoing queue, likewise
    std::size_t m_outgoingLength;      // entries in the outgoing queue, likewise
    std::size_t m_oldestIncoming;      // no open context sits before this slot
    unsigned long long m_incomingBytes;  // payload bytes of the parts in open contexts
    unsigned int m_u32MaxIncomingContexts;
    unsigned long long m_u64MaxIncomingBytes;

    // Where the first start and end bytes of the stream are, as far as it has been
    // searched: new bytes are searched once, not again on every poll while a large frame
    // trickles in or a stray end byte holds the stream.
    unsigned int m_u32Searched;
    unsigned int m_u32FirstStart;
    unsigned int m_u32FirstEnd;
    bool m_bEndFromHeader;  // m_u32FirstEnd was taken from the frame's length field, unchecked

    // Large buffers are kept from one poll to the next only while every poll needs them
    // again (a sustained transfer), so fresh pages are not mapped and zeroed for every
    // large telegram; the first poll that does not need one gives it back. All three are
    // touched by the polling thread only; null while not kept.
    tBlob* m_pSendBuffer;       // the frames of the telegram being sent
    tBlob m_smallFrames;        // the same for small telegrams, kept while it stays small
    tBlob* m_pContentSpare;     // storage for the next joined multi-part content
    bool m_bSpareFromThisPoll;
    unsigned int m_u32StreamPeak;  // the most bytes the stream held since it was released

    // Small frames are read into this part, and their bodies and contents decoded through
    // the spare blob, so that reading them allocates nothing; polling thread only.
    nk_telegramPart m_readPart;
    tBlob m_readSpare;
    bool m_bParsing;  // a receive callback that polls reads with a part of its own
    // A finished small outgoing telegram, with its part and payload storage, that the next
    // one is built in; guarded by the outgoing lock.
    nk_telegram* m_pSpareTelegram;
};

#endif
