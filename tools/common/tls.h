#ifndef NK_TOOLS_TLS_H
#define NK_TOOLS_TLS_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include <asio.hpp>
#include <asio/ssl.hpp>

#include "endpoint.h"
#include "link.h"
#include "tls_files.h"
#include "tls_record.h"

// Who a certificate names. A panel's certificate carries its protocol address in decimal as the
// subject's common name (CN=1001); any other name is a station's (CN=nkstation). The broker takes
// the same name as the MQTT user name, so one certificate serves a panel on TCP and on MQTT.
std::string certificateName(X509* certificate);
bool namesPanel(std::string const& name, unsigned int* address = nullptr);
// Empty when a certificate's name is the one of the panel with this address; otherwise what it
// names instead, for an error: "names panel 2, not panel 1", "names 'nkstation', not panel 1".
std::string panelNameMismatch(std::string const& name, unsigned int address);

enum class TlsRole
{
    CLIENT,
    SERVER
};

// A TLS 1.3 context that presents files.cert and requires the peer to present a certificate
// chaining to files.ca (checked against files.crl when given). Throws ToolError (input) naming
// the file and the cause when one cannot be read, or the key does not belong to the certificate.
std::shared_ptr<asio::ssl::context> makeTlsContext(TlsFiles const& files, TlsRole role);

// The name in a certificate file, read before anything is connected, so that a device can
// refuse to start with another panel's certificate. Throws ToolError (input).
std::string certificateFileName(std::string const& path);
// Throws ToolError (input) unless the certificate file names the panel with this address.
void requirePanelCertificate(std::string const& path, unsigned int address);

// A protocol link over TLS on a TCP connection. The peer's certificate was verified during the
// handshake; peerName() is the name it carries.
class TlsLink : public Link
{
public:
    using Stream = asio::ssl::stream<asio::ip::tcp::socket>;
    TlsLink(std::shared_ptr<asio::ssl::context> context, std::unique_ptr<Stream> stream, std::string name,
            std::string peerName);
    std::string const& peerName() const { return m_peerName; }

protected:
    void asyncReadSome(asio::mutable_buffer buffer, ReadDone done) override;
    void asyncWrite(asio::const_buffer buffer, ReadDone done) override;
    void closeStream() override;
    std::string readFailure(std::error_code ec) override;

private:
    // The stream's SSL object refers to the context: it lives as long as the link.
    std::shared_ptr<asio::ssl::context> m_context;
    std::unique_ptr<Stream> m_stream;
    std::string m_peerName;
};

// Connects to ep and completes the TLS handshake within timeout without blocking the thread:
// done runs once on io's thread with the link, or with a null link and the error naming the
// address and the cause: refused, time-out, a certificate that does not verify, or a peer that
// is no TLS server (a plain port). refused is true when the peer was reached but the two sides
// do not agree (a certificate, TLS on one side only), rather than unreachable.
using TlsConnectHandler = std::function<void(std::shared_ptr<TlsLink> link, std::string const& error, bool refused)>;
void connectTlsAsync(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout,
                     std::shared_ptr<asio::ssl::context> context, TlsConnectHandler done);

// The same, running io until done; throws ToolError (connect) with the error.
std::shared_ptr<TlsLink> connectTls(asio::io_context& io, Endpoint const& ep, std::chrono::milliseconds timeout,
                                    std::shared_ptr<asio::ssl::context> context);

// The server side of one accepted connection: the handshake runs asynchronously; a peer that
// completes it with a station's certificate is handed to onAccept, any other is closed and
// onRefused gets one line saying why.
void acceptTls(asio::ip::tcp::socket socket, std::string name, std::shared_ptr<asio::ssl::context> context,
               std::function<void(std::shared_ptr<Link>)> onAccept,
               std::function<void(std::string const& line)> onRefused);

// A short reason for a failed TLS operation, in words an operator can act on.
std::string describeTlsError(std::error_code ec);

#endif
