// The smallest useful station: connects to a device on 127.0.0.1:PORT, asks for its clock
// with a TIME request, prints the answer, then tells it to shut down.
// Usage: minimal_station PORT
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <netinet/in.h>

#include "minimal_link.h"

namespace
{
enum { WAITING, ANSWERED, FAILED } s_state = WAITING;

// Called once per request: with the response, or on time-out.
void onResponse(unsigned int device, tBlob* content, void*, bool timedOut, void*)
{
    std::unique_ptr<nk_message> msg(timedOut ? nullptr : nk_message::getMessage(content));
    if (!msg || msg->type() != nk_message::TIME) {
        std::printf("station: %s\n", timedOut ? "no answer in time" : "unexpected answer");
        s_state = FAILED;
        return;
    }
    std::printf("station: device %u says %s\n", device, msg->getJson().c_str());
    s_state = ANSWERED;
}

void enqueue(nk_protocol& engine, nk_message& msg, nk_protocol::tResponseCallback cb)
{
    nk_serializer content;
    msg.serializeMsg(&content);
    engine.enqueue_TS(&content, 2, cb, 5, nullptr);
}
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: minimal_station PORT\n");
        return 2;
    }
    int device = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(device, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::perror("minimal_station: connect");
        return 1;
    }

    nk_protocol engine(1, nullptr, nullptr, 10, nullptr, nullptr, nullptr);
    nk_messageTime time(nk_message::VERSION_1);
    enqueue(engine, time, onResponse);
    while (s_state == WAITING) {
        engine.poll(nullptr, ctxOf(device), sendToSocket, recvFromSocket);
        tTime::sleep(5);
    }

    nk_messageShutdown shutdown(nk_message::VERSION_0);
    enqueue(engine, shutdown, nullptr);  // no callback: no response expected
    engine.poll(nullptr, ctxOf(device), sendToSocket, recvFromSocket);
    ::close(device);
    return s_state == ANSWERED ? 0 : 1;
}
