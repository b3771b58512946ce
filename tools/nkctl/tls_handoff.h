#ifndef NK_TOOLS_TLS_HANDOFF_H
#define NK_TOOLS_TLS_HANDOFF_H

// The plain nkctl is built without OpenSSL: binding libssl and libcrypto costs a process more
// at start-up than a whole request to a device takes. A run that asks for TLS is handed, with
// the same arguments, to nkctl-tls, the same program built with TLS, found beside nkctl in the
// build tree and in <libexecdir>/nkProtocol once installed (as git hands https to a helper).
// Returns only when neither can be started; throws ToolError saying where it looked.
[[noreturn]] void handOffToTlsBuild(char** argv);

#endif
