// A station and a device in one process: the station builds TIME, SHUTDOWN and
// GENERIC_REQ messages, the device rebuilds each one from its bytes through the factory
// and answers the generic request. Every message is shown as hex and as JSON.
#include <cstdio>
#include <memory>

#include "nkProtocol.h"

namespace
{
void show(char const* who, nk_message& msg)
{
    nk_serializer bytes;
    msg.serializeMsg(&bytes);
    std::printf("%-8s %-12s %2u bytes:", who, msg.typeName().c_str(), bytes.size());
    for (unsigned int i = 0; i < bytes.size(); ++i) std::printf(" %02X", bytes.getBuffer()[i]);
    std::printf("\n%-8s %-12s json: %s\n", "", "", msg.getJson().c_str());
}

// The device side: bytes in, message out through the factory.
std::unique_ptr<nk_message> receive(nk_message& sent)
{
    nk_serializer wire;
    sent.serializeMsg(&wire);
    tBlob received(wire.getBuffer(), wire.size());
    return std::unique_ptr<nk_message>(nk_message::getMessage(&received));
}
}

int main()
{
    int failures = 0;
    nk_messageTime time(nk_message::VERSION_1);
    nk_messageShutdown shutdown(nk_message::VERSION_0);
    nk_messageGenericReq generic(nk_message::VERSION_0, "get", "brightness");
    nk_message* outgoing[] = {&time, &shutdown, &generic};

    for (nk_message* msg : outgoing) {
        show("station", *msg);
        std::unique_ptr<nk_message> got = receive(*msg);
        if (!got || got->type() != msg->type()) {
            std::printf("device   could not rebuild %s\n", msg->typeName().c_str());
            ++failures;
            continue;
        }
        show("device", *got);
        if (got->type() == nk_message::GENERIC_REQ) {
            auto* req = static_cast<nk_messageGenericReq*>(got.get());
            nk_messageGenericRsp answer(nk_message::VERSION_0, req->text2, "80");
            show("device", answer);
        }
    }
    std::printf(failures == 0 ? "demo: every message travelled from object to bytes to object\n"
                              : "demo: %d message(s) failed\n",
                failures);
    return failures == 0 ? 0 : 1;
}
