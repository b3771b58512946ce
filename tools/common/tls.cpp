#include "tls.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "tcp.h"
#include "tool_error.h"

namespace
{
// A peer that connects and never completes its handshake must not hold a connection forever.
const std::chrono::seconds kServerHandshakeTime(30);

// The oldest OpenSSL error queued, in words, and the queue emptied.
std::string opensslReason()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "unknown error";
    char const* reason = ERR_reason_error_string(code);
    return reason ? reason : "error " + std::to_string(code);
}

void requireReadable(std::string const& path, char const* what)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) throw ToolError(std::string("cannot read TLS ") + what + " " + path + ": " + std::strerror(errno), EXIT_INPUT);
    std::fclose(file);
}

// The device accepts stations only: a panel's certificate chains to the same CA, and a panel's
// stolen key must not let its holder drive the other panels.
int verifyStation(int preverified, X509_STORE_CTX* store)
{
    if (!preverified || X509_STORE_CTX_get_error_depth(store) != 0) return preverified;
    if (namesPanel(certificateName(X509_STORE_CTX_get_current_cert(store)))) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    return 1;
}

// Why the peer's certificate failed, when it did; empty otherwise.
std::string verifyFailure(SSL* ssl)
{
    const long result = SSL_get_verify_result(ssl);
    if (result == X509_V_OK) return std::string();
    if (result == X509_V_ERR_APPLICATION_VERIFICATION) return "the certificate names a panel, not a station";
    return X509_verify_cert_error_string(result);
}

bool closedByPeer(std::error_code ec)
{
    return ec == asio::error::eof || ec == asio::ssl::error::stream_truncated || ec == asio::error::connection_reset;
}

// A fatal TLS alert (protocol_version) in a plain record: tells a plain client that it reached a
// TLS port, in the form every TLS implementation understands.
const unsigned char kProtocolVersionAlert[] = {0x15, 0x03, 0x03, 0x00, 0x02, 0x02, 0x46};

class ServerHandshake : public std::enable_shared_from_this<ServerHandshake>
{
public:
    ServerHandshake(asio::ip::tcp::socket socket, std::string name, std::shared_ptr<asio::ssl::context> context,
                    std::function<void(std::shared_ptr<Link>)> onAccept,
                    std::function<void(std::string const&)> onRefused)
        : m_timer(socket.get_executor()),
          m_context(std::move(context)),
          m_stream(new TlsLink::Stream(std::move(socket), *m_context)),
          m_name(std::move(name)),
          m_onAccept(std::move(onAccept)),
          m_onRefused(std::move(onRefused))
    {
    }

    void start()
    {
        auto self = shared_from_this();
        m_timer.expires_after(kServerHandshakeTime);
        m_timer.async_wait([self](std::error_code ec) {
            if (ec || self->m_finished) return;
            self->refuse("no TLS handshake within " + std::to_string(kServerHandshakeTime.count()) + " s");
        });
        // The first bytes tell a plain client from a TLS one before OpenSSL sees them.
        m_stream->next_layer().async_wait(asio::socket_base::wait_read, [self](std::error_code ec) {
            if (self->m_finished) return;
            if (ec) {
                self->refuse(ec.message());
                return;
            }
            self->screen();
        });
    }

private:
    void screen()
    {
        std::array<unsigned char, 5> head{};
        std::error_code ec;
        const std::size_t n = m_stream->next_layer().receive(asio::buffer(head), asio::socket_base::message_peek, ec);
        if (ec || n == 0) {
            refuse("closed before the TLS handshake");
            return;
        }
        if (n >= 3 && !looksLikeTls(head.data(), n)) {
            // The request is read and dropped first: closing with unread bytes would reset the
            // connection, and the peer might lose the alert.
            std::error_code ignored;
            auto& socket = m_stream->next_layer();
            std::vector<unsigned char> drop(socket.available(ignored));
            if (!drop.empty()) socket.receive(asio::buffer(drop), 0, ignored);
            asio::write(socket, asio::buffer(kProtocolVersionAlert), ignored);
            socket.shutdown(asio::socket_base::shutdown_send, ignored);
            refuse("the peer speaks no TLS (a plain client on the TLS port)");
            return;
        }
        auto self = shared_from_this();
        m_stream->async_handshake(asio::ssl::stream_base::server, [self](std::error_code ec) {
            if (self->m_finished) return;
            if (ec) {
                const std::string why = verifyFailure(self->m_stream->native_handle());
                self->refuse(!why.empty() ? "its certificate was refused: " + why
                             : closedByPeer(ec) ? "closed during the TLS handshake"
                                                : "TLS handshake failed: " + describeTlsError(ec));
                return;
            }
            self->m_finished = true;
            self->m_timer.cancel();
            const std::string peer = certificateName(SSL_get0_peer_certificate(self->m_stream->native_handle()));
            self->m_onAccept(std::make_shared<TlsLink>(self->m_context, std::move(self->m_stream), self->m_name, peer));
        });
    }

    void refuse(std::string const& reason)
    {
        if (m_finished) return;
        m_finished = true;
        m_timer.cancel();
        std::error_code ignored;
        m_stream->lowest_layer().close(ignored);
        if (m_onRefused) m_onRefused("refused the connection from " + m_name + ": " + reason);
    }

    asio::steady_timer m_timer;
    std::shared_ptr<asio::ssl::context> m_context;
    std::unique_ptr<TlsLink::Stream> m_stream;
    std::string m_name;
    std::function<void(std::shared_ptr<Link>)> m_onAccept;
    std::function<void(std::string const&)> m_onRefused;
    bool m_finished = false;
};
}

std::string certificateName(X509* certificate)
{
    if (!certificate) return std::string();
    char name[256] = {0};
    const int length = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name);
    return length > 0 ? std::string(name, static_cast<std::size_t>(length)) : std::string();
}

bool namesPanel(std::string const& name, unsigned int* address)
{
    // Plain decimal as in the broker topics: "007" is no panel's name.
    if (name.empty() || name.size() > 10 || name.find_first_not_of("0123456789") != std::string::npos ||
        (name.size() > 1 && name[0] == '0'))
        return false;
    const unsigned long long value = std::stoull(name);
    if (value > 0xFFFFFFFDull) return false;
    if (address) *address = static_cast<unsigned int>(value);
    return true;
}

std::string panelNameMismatch(std::string const& name, unsigned int address)
{
    unsigned int named = 0;
    const bool panel = namesPanel(name, &named);
    if (panel && named == address) return std::string();
    return "names " + (panel ? "panel " + name : "'" + name + "'") + ", not panel " + std::to_string(address);
}

std::shared_ptr<asio::ssl::context> makeTlsContext(TlsFiles const& files, TlsRole role)
{
    requireReadable(files.cert, "certificate");
    requireReadable(files.key, "key");
    requireReadable(files.ca, "CA");
    if (!files.crl.empty()) requireReadable(files.crl, "revocation list");
    ERR_clear_error();
    auto context = std::make_shared<asio::ssl::context>(role == TlsRole::CLIENT ? asio::ssl::context::tls_client
                                                                                : asio::ssl::context::tls_server);
    SSL_CTX* native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_3_VERSION);
    if (SSL_CTX_use_certificate_chain_file(native, files.cert.c_str()) != 1)
        throw ToolError("cannot use TLS certificate " + files.cert + ": " + opensslReason(), EXIT_INPUT);
    if (SSL_CTX_use_PrivateKey_file(native, files.key.c_str(), SSL_FILETYPE_PEM) != 1)
        throw ToolError("cannot use TLS key " + files.key + ": " + opensslReason(), EXIT_INPUT);
    if (SSL_CTX_check_private_key(native) != 1)
        throw ToolError("TLS key " + files.key + " does not belong to certificate " + files.cert, EXIT_INPUT);
    if (SSL_CTX_load_verify_locations(native, files.ca.c_str(), nullptr) != 1)
        throw ToolError("cannot use TLS CA " + files.ca + ": " + opensslReason(), EXIT_INPUT);
    if (!files.crl.empty()) {
        X509_STORE* store = SSL_CTX_get_cert_store(native);
        X509_LOOKUP* lookup = X509_STORE_add_lookup(store, X509_LOOKUP_file());
        if (!lookup || X509_load_crl_file(lookup, files.crl.c_str(), X509_FILETYPE_PEM) < 1)
            throw ToolError("cannot use TLS revocation list " + files.crl + ": " + opensslReason(), EXIT_INPUT);
        X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    }
    SSL_CTX_set_verify(native, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                       role == TlsRole::SERVER ? &verifyStation : nullptr);
    // Sessions are never resumed: every link is one long connection.
    if (role == TlsRole::SERVER) SSL_CTX_set_num_tickets(native, 0);
    return context;
}

std::string certificateFileName(std::string const& path)
{
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) throw ToolError("cannot read TLS certificate " + path + ": " + std::strerror(errno), EXIT_INPUT);
    X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (!certificate) throw ToolError("TLS certificate " + path + " holds no PEM certificate", EXIT_INPUT);
    std::string name = certificateName(certificate);
    X509_free(certificate);
    return name;
}

void requirePanelCertificate(std::string const& path, unsigned int address)
{
    const std::string name = certificateFileName(path);
    unsigned int named = 0;
    if (!namesPanel(name, &named) || named != address)
        throw ToolError("TLS certificate " + path + " names '" + name + "', not the panel " + std::to_string(address),
                        EXIT_INPUT);
}

std::string describeTlsError(std::error_code ec)
{
    if (ec.category() == asio::error::get_ssl_category()) {
        char const* reason = ERR_reason_error_string(static_cast<unsigned long>(ec.value()));
        if (reason) return reason;
    }
    if (ec == asio::ssl::error::stream_truncated) return "connection closed without TLS close";
    return ec.message();
}

TlsLink::TlsLink(std::shared_ptr<asio::ssl::context> context, std::unique_ptr<Stream> stream, std::string name,
                 std::string peerName)
    : Link(std::move(name)), m_context(std::move(context)), m_stream(std::move(stream)), m_peerName(std::move(peerName))
{
}

void TlsLink::asyncReadSome(asio::mutable_buffer buffer, ReadDone done)
{
    m_stream->async_read_some(buffer, std::move(done));
}

void TlsLink::asyncWrite(asio::const_buffer buffer, ReadDone done)
{
    asio::async_write(*m_stream, buffer, std::move(done));
}

void TlsLink::closeStream()
{
    std::error_code ignored;
    m_stream->lowest_layer().close(ignored);
}

std::string TlsLink::readFailure(std::error_code ec)
{
    if (closedByPeer(ec)) return "closed by peer";
    if (ec.category() != asio::error::get_ssl_category()) return ec.message();
    // In TLS 1.3 a client learns that its certificate was refused only with the first read:
    // an alert before any byte arrived is the peer turning this side away.
    if (bytesRead() == 0) {
        markRefused();
        return "the peer refused this side's TLS certificate (" + describeTlsError(ec) + ")";
    }
    return "TLS error: " + describeTlsError(ec);
}

namespace
{
// The client's handshake after the connection, within what is left of the time allowed.
struct TlsAttempt : std::enable_shared_from_this<TlsAttempt>
{
    TlsAttempt(asio::ip::tcp::socket socket, Endpoint const& ep, std::shared_ptr<asio::ssl::context> context,
               TlsConnectHandler done)
        : timer(socket.get_executor()),
          context(std::move(context)),
          stream(new TlsLink::Stream(std::move(socket), *this->context)),
          ep(ep),
          done(std::move(done))
    {
    }

    void start(std::chrono::steady_clock::time_point deadline)
    {
        auto self = shared_from_this();
        timer.expires_at(deadline);
        timer.async_wait([self](std::error_code ec) {
            if (!ec) self->fail("time-out in the TLS handshake with " + self->ep.text() + " (is it a TLS port?)", false);
        });
        stream->async_handshake(asio::ssl::stream_base::client, [self](std::error_code ec) {
            if (self->finished) return;
            if (ec) {
                self->fail(self->handshakeFailure(ec), true);
                return;
            }
            self->finished = true;
            self->timer.cancel();
            const std::string peer = certificateName(SSL_get0_peer_certificate(self->stream->native_handle()));
            TlsConnectHandler handler = std::move(self->done);
            handler(std::make_shared<TlsLink>(std::move(self->context), std::move(self->stream), self->ep.text(), peer),
                    std::string(), false);
        });
    }

    std::string handshakeFailure(std::error_code ec)
    {
        const std::string why = verifyFailure(stream->native_handle());
        if (!why.empty()) return "the TLS certificate of " + ep.text() + " was refused: " + why;
        if (closedByPeer(ec)) return ep.text() + " closed the connection in the TLS handshake (a plain port, not TLS?)";
        return "TLS handshake with " + ep.text() + " failed: " + describeTlsError(ec);
    }

    void fail(std::string const& error, bool refused)
    {
        if (finished) return;
        finished = true;
        timer.cancel();
        std::error_code ignored;
        stream->lowest_layer().close(ignored);
        TlsConnectHandler handler = std::move(done);
        handler(nullptr, error, refused);
    }

    asio::steady_timer timer;
    std::shared_ptr<asio::ssl::context> context;
    std::unique_ptr<TlsLink::Stream> stream;
    Endpoint ep;
    TlsConnectHandler done;
    bool finished = false;
};
}

void connectTlsAsync(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout,
                     std::shared_ptr<asio::ssl::context> context, TlsConnectHandler done)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    connectSocketAsync(io, ep, timeout,
                       [ep, deadline, context = std::move(context), done = std::move(done)](
                           asio::ip::tcp::socket socket, std::string const& error) mutable {
                           if (!error.empty()) {
                               done(nullptr, error, false);
                               return;
                           }
                           std::make_shared<TlsAttempt>(std::move(socket), ep, std::move(context), std::move(done))
                               ->start(deadline);
                       });
}

std::shared_ptr<TlsLink> connectTls(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout,
                                    std::shared_ptr<asio::ssl::context> context)
{
    std::shared_ptr<TlsLink> connected;
    std::string error;
    bool done = false;
    connectTlsAsync(io, ep, timeout, std::move(context),
                    [&](std::shared_ptr<TlsLink> link, std::string const& why, bool) {
                        connected = std::move(link);
                        error = why;
                        done = true;
                    });
    runUntil(io, done);
    if (!done) throw ToolError("connecting to " + ep.text() + " did not complete", EXIT_CONNECT);
    if (!error.empty()) throw ToolError(error, EXIT_CONNECT);
    return connected;
}

void acceptTls(asio::ip::tcp::socket socket, std::string name, std::shared_ptr<asio::ssl::context> context,
               std::function<void(std::shared_ptr<Link>)> onAccept,
               std::function<void(std::string const& line)> onRefused)
{
    std::make_shared<ServerHandshake>(std::move(socket), std::move(name), std::move(context), std::move(onAccept),
                                      std::move(onRefused))
        ->start();
}
