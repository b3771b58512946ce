// Uses both libraries through the one public header: a message through the factory and a
// support-layer checksum.
#include <cstdio>
#include <memory>

#include "nkProtocol.h"

int main()
{
    nk_messageTime time(nk_message::VERSION_1);
    time.currentTime = 1234;
    nk_serializer bytes;
    if (!time.serializeMsg(&bytes)) return 1;
    std::unique_ptr<nk_message> back(nk_message::getMessage(&bytes));
    if (!back || back->type() != nk_message::TIME) return 2;
    SHA1 sha;
    sha.Input(reinterpret_cast<unsigned char const*>("abc"), 3);
    if (sha.Result() != "a9993e364706816aba3e25717850c26c9cd0d89d") return 3;
    std::printf("consumer: %s\n", back->getJson().c_str());
    return 0;
}
