#include "tls_dialer.h"

#include "tls.h"

namespace
{
const unsigned int kBroadcast = 0xFFFFFFFEu;

class CertifiedDialer : public TlsDialer
{
public:
    explicit CertifiedDialer(TlsFiles const& files) : m_context(makeTlsContext(files, TlsRole::CLIENT)) {}

    // The certificate must name each device asked for at that address: the CA alone would let
    // any panel of the fleet answer for another.
    std::shared_ptr<Link> connect(asio::io_context& io, std::string const& address,
                                  std::vector<DeviceLocation> const& locations, std::chrono::seconds timeout) override
    {
        std::shared_ptr<TlsLink> link = connectTls(io, parseEndpoint(address, "127.0.0.1"), timeout, m_context);
        for (DeviceLocation const& location : locations) {
            if (location.link != address || location.address == kBroadcast) continue;
            const std::string mismatch = panelNameMismatch(link->peerName(), location.address);
            if (mismatch.empty()) continue;
            link->close("not the device asked for");
            throw ToolError("the TLS certificate of " + address + " " + mismatch, EXIT_CONNECT);
        }
        return link;
    }

private:
    std::shared_ptr<asio::ssl::context> m_context;
};
}

std::unique_ptr<TlsDialer> makeTlsDialer(TlsFiles const& files)
{
    return std::unique_ptr<TlsDialer>(new CertifiedDialer(files));
}
