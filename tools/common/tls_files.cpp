#include "tls_files.h"

#include "tool_error.h"

void TlsFiles::requireComplete() const
{
    if (!enabled()) return;
    if (cert.empty() || key.empty() || ca.empty())
        throw ToolError("TLS needs --tls-cert, --tls-key and --tls-ca together", EXIT_USAGE);
}

bool TlsFiles::perPanel() const
{
    return cert.find("{address}") != std::string::npos && key.find("{address}") != std::string::npos;
}

TlsFiles TlsFiles::forPanel(unsigned int address) const
{
    auto replaced = [address](std::string text) {
        const std::string mark = "{address}";
        for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at))
            text.replace(at, mark.size(), std::to_string(address));
        return text;
    };
    TlsFiles files = *this;
    files.cert = replaced(cert);
    files.key = replaced(key);
    return files;
}
