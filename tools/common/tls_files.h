#ifndef NK_TOOLS_TLS_FILES_H
#define NK_TOOLS_TLS_FILES_H

#include <string>

// The files of one side of a mutual TLS link: its own certificate and key, the CA its peers'
// certificates must chain to, and optionally a revocation list of that CA. A path may hold
// "{address}", which forPanel() replaces with a panel's address, so that one option names the
// certificate of every panel a process simulates.
struct TlsFiles
{
    std::string cert;
    std::string key;
    std::string ca;
    std::string crl;

    bool enabled() const { return !cert.empty() || !key.empty() || !ca.empty() || !crl.empty(); }
    // Throws ToolError (usage) unless the three of cert, key and ca are given together.
    void requireComplete() const;
    bool perPanel() const;
    TlsFiles forPanel(unsigned int address) const;
};

#endif
