#ifndef NK_TOOLS_TLS_OPTIONS_H
#define NK_TOOLS_TLS_OPTIONS_H

#include <string>

#include <CLI/CLI.hpp>

#include "tls_files.h"

// The same four options on every program, so that one set of files and one habit serve all.
// certHelp says whose certificate --tls-cert is.
inline void addTlsOptions(CLI::App& app, TlsFiles& files, std::string const& certHelp)
{
    app.add_option("--tls-cert", files.cert, "TLS 1.3 with this certificate (PEM): " + certHelp);
    app.add_option("--tls-key", files.key, "the private key (PEM) of --tls-cert");
    app.add_option("--tls-ca", files.ca, "the CA (PEM) that peers' certificates must chain to");
    app.add_option("--tls-crl", files.crl, "certificates revoked by the CA (PEM revocation list)");
}

#endif
