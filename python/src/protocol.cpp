// The protocol engine for Python. Calls into the engine release the GIL (they take the engine's
// locks, and a poll may wait on the link); every Python callback takes it back. An exception
// raised by a callback cannot travel through the engine, so it is kept and raised again by the
// poll (or enqueue) that ran the callback, once the engine's round is finished.
#include "bindings.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "nkProtocol.h"

namespace nkpy
{
namespace
{
class Protocol;

// The link functions of one poll, and the protocol that runs them.
struct PollCall
{
    Protocol* protocol;
    py::object send;
    py::object recv;
};

class Protocol
{
public:
    Protocol(unsigned int address, py::object onRequest, unsigned int defaultTimeout_s, py::object log)
        : m_onRequest(std::move(onRequest)), m_log(std::move(log))
    {
        if (!m_onRequest.is_none() && !PyCallable_Check(m_onRequest.ptr()))
            throw py::type_error("on_request must be callable or None");
        if (!m_log.is_none() && !PyCallable_Check(m_log.ptr())) throw py::type_error("log must be callable or None");
        m_engine.reset(new nk_protocol(address, &Protocol::onRequest, this, defaultTimeout_s, nullptr, this,
                                       m_log.is_none() ? nullptr : &Protocol::logLine));
    }

    ~Protocol()
    {
        // Requests still queued are dropped without their callbacks; their holders go after.
        py::gil_scoped_release unlocked;
        m_engine.reset();
    }

    unsigned int address() const { return m_engine->ownAddress(); }

    void enqueue(py::buffer content, unsigned int dest, py::object callback, unsigned int timeout_s)
    {
        if (!callback.is_none() && !PyCallable_Check(callback.ptr()))
            throw py::type_error("callback must be callable or None");
        tBlob c = blobFrom(content);
        void* key = nullptr;
        if (!callback.is_none()) {
            key = reinterpret_cast<void*>(++m_nextKey);
            m_pending[reinterpret_cast<uintptr_t>(key)] = std::move(callback);
        }
        {
            py::gil_scoped_release unlocked;
            m_engine->enqueue_TS(&c, dest, key ? &Protocol::onResponse : nullptr, timeout_s, key);
        }
        raiseKept();
    }

    void respond(py::buffer content, unsigned int dest, unsigned int telegramId)
    {
        tBlob c = blobFrom(content);
        {
            py::gil_scoped_release unlocked;
            m_engine->respond_TS(&c, dest, telegramId);
        }
        raiseKept();
    }

    void poll(py::object send, py::object recv)
    {
        for (auto* fn : {&send, &recv})
            if (!fn->is_none() && !PyCallable_Check(fn->ptr())) throw py::type_error("send and recv must be callable or None");
        PollingThread polling(*this);
        PollCall call{this, std::move(send), std::move(recv)};
        {
            py::gil_scoped_release unlocked;
            m_engine->poll(nullptr, &call, call.send.is_none() ? nullptr : &Protocol::sendFn,
                           call.recv.is_none() ? nullptr : &Protocol::recvFn);
        }
        raiseKept();
    }

    void push(py::buffer data)
    {
        PollingThread polling(*this);
        tBlob d = blobFrom(data);
        m_engine->pushData(d.getBuffer(), d.size());
    }

    unsigned int queued()
    {
        py::gil_scoped_release unlocked;
        return m_engine->queuedTelegrams_TS();
    }
    unsigned int incoming()
    {
        py::gil_scoped_release unlocked;
        return m_engine->incomingTelegrams_TS();
    }
    unsigned int pendingStreamBytes() const { return m_engine->pendingStreamBytes(); }
    size_t callbacksHeld() const { return m_pending.size(); }

private:
    // The stream buffer is not guarded: pushing and polling must stay on one thread at a time.
    class PollingThread
    {
    public:
        explicit PollingThread(Protocol& p) : m_p(p)
        {
            if (m_p.m_polling.exchange(true))
                throw std::runtime_error("the engine is already polling or being pushed bytes on another thread");
        }
        ~PollingThread() { m_p.m_polling = false; }

    private:
        Protocol& m_p;
    };

    void keep(std::exception_ptr error)
    {
        if (!m_kept) m_kept = error;
    }
    void raiseKept()
    {
        if (!m_kept) return;
        std::exception_ptr error = m_kept;
        m_kept = nullptr;
        std::rethrow_exception(error);
    }

    static void onRequest(unsigned int src, tBlob* content, void* context)
    {
        auto* self = static_cast<Protocol*>(context);
        py::gil_scoped_acquire gil;
        if (self->m_onRequest.is_none()) {
            content->clear();
            return;
        }
        try {
            py::object answer = self->m_onRequest(src, bytesOf(*content));
            if (answer.is_none()) {
                content->clear();
            } else {
                *content = blobFrom(answer);
            }
        } catch (...) {
            content->clear();  // no answer rather than the request echoed back
            self->keep(std::current_exception());
        }
    }

    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData)
    {
        auto* self = static_cast<Protocol*>(context);
        py::gil_scoped_acquire gil;
        auto it = self->m_pending.find(reinterpret_cast<uintptr_t>(userData));
        if (it == self->m_pending.end()) return;
        py::object callback = std::move(it->second);
        self->m_pending.erase(it);
        try {
            callback(address, content ? py::object(bytesOf(*content)) : py::object(py::none()), timedOut);
        } catch (...) {
            self->keep(std::current_exception());
        }
    }

    static unsigned int sendFn(nk_server*, void* ctx, unsigned char* data, unsigned int length, int* error)
    {
        auto* call = static_cast<PollCall*>(ctx);
        py::gil_scoped_acquire gil;
        try {
            py::object n = call->send(py::bytes(reinterpret_cast<char*>(data), length));
            if (n.is_none()) return length;
            const long long sent = n.cast<long long>();
            if (sent < 0 || sent > length)
                throw py::value_error("send returned " + std::to_string(sent) + " for " + std::to_string(length) + " bytes");
            if (sent == 0 && error) *error = EAGAIN;
            return static_cast<unsigned int>(sent);
        } catch (...) {
            call->protocol->keep(std::current_exception());
            if (error) *error = EIO;
            return 0;
        }
    }

    static unsigned int recvFn(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        auto* call = static_cast<PollCall*>(ctx);
        py::gil_scoped_acquire gil;
        try {
            py::object got = call->recv(length);
            if (got.is_none()) return 0;
            py::buffer_info info = got.cast<py::buffer>().request();
            const size_t n = static_cast<size_t>(info.size * info.itemsize);
            if (n > length)
                throw py::value_error("recv returned " + std::to_string(n) + " bytes, asked for at most " +
                                      std::to_string(length));
            std::memcpy(data, info.ptr, n);
            return static_cast<unsigned int>(n);
        } catch (...) {
            call->protocol->keep(std::current_exception());
            return 0;
        }
    }

    static void logLine(void* context, char const* text)
    {
        auto* self = static_cast<Protocol*>(context);
        py::gil_scoped_acquire gil;
        try {
            self->m_log(py::str(text));
        } catch (...) {
            self->keep(std::current_exception());
        }
    }

    // Declared first so that it goes last: the engine is gone before the callbacks it could call.
    py::object m_onRequest;
    py::object m_log;
    // Callbacks of requests not yet answered, by the key passed as user data; guarded by the GIL.
    std::unordered_map<uintptr_t, py::object> m_pending;
    uintptr_t m_nextKey = 0;
    std::exception_ptr m_kept;  // guarded by the GIL
    std::atomic<bool> m_polling{false};
    std::unique_ptr<nk_protocol> m_engine;
};
}  // namespace

void bindProtocol(py::module_& m)
{
    py::class_<Protocol>(m, "Protocol",
                         "The protocol engine: one address on a byte-stream link. Queue requests and "
                         "responses from any thread; push received bytes and poll on one thread at a time.")
        .def(py::init<unsigned int, py::object, unsigned int, py::object>(), py::arg("address"),
             py::arg("on_request") = py::none(), py::arg("default_timeout") = 10, py::arg("log") = py::none(),
             "on_request(source, content) -> bytes or None answers a request (None: no answer); "
             "log(text) receives the engine's diagnostics")
        .def_property_readonly("address", &Protocol::address)
        .def("enqueue", &Protocol::enqueue, py::arg("content"), py::arg("destination"),
             py::arg("callback") = py::none(), py::arg("timeout") = 0,
             "Queue a request. callback(address, content, timed_out) runs once, inside a later poll, with "
             "the answer or, after timeout seconds (0: the engine's default), with (ADDRESS_NONE, None, True); "
             "a request that cannot be sent never calls it")
        .def("respond", &Protocol::respond, py::arg("content"), py::arg("destination"), py::arg("telegram_id"),
             "Queue a response to a request received earlier")
        .def("poll", &Protocol::poll, py::arg("send") = py::none(), py::arg("recv") = py::none(),
             "One round of work: send(data) -> count or None (all) writes queued telegrams; a count of 0 "
             "means try again, and the engine waits. recv(n) -> bytes or None reads. Then the received "
             "stream is cut into frames and the callbacks run. The first exception a callback raised "
             "is raised here after the round")
        .def("push", &Protocol::push, py::arg("data"), "Bytes received from the link, for the next poll")
        .def_property_readonly("queued", &Protocol::queued, "Telegrams in the outgoing queue")
        .def_property_readonly("incoming", &Protocol::incoming, "Multi-part telegrams being reassembled")
        .def_property_readonly("pending_stream_bytes", &Protocol::pendingStreamBytes,
                               "Received bytes not yet cut into frames")
        .def_property_readonly("callbacks_held", &Protocol::callbacksHeld,
                               "Response callbacks not yet called (a request dropped unsent keeps its "
                               "callback until the engine goes)")
        .def_static("set_max_payload_size", &nk_protocol::setMaxPayloadSize, py::arg("size"));
}
}  // namespace nkpy
