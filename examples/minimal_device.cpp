// The smallest useful device: listens on 127.0.0.1:PORT, takes one station, answers TIME with
// its own clock and stops on SHUTDOWN. Usage: minimal_device PORT
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <netinet/in.h>

#include "minimal_link.h"

namespace
{
bool s_shutdown = false;

// A complete request arrives here; what is left in content goes back as the response.
void onRequest(unsigned int station, tBlob* content, void*)
{
    std::unique_ptr<nk_message> msg(nk_message::getMessage(content));
    content->clear();
    if (!msg) return;
    std::printf("device: %s from station %u: %s\n", msg->typeName().c_str(), station, msg->getJson().c_str());
    if (msg->type() == nk_message::TIME) {
        nk_messageTime mine(nk_message::VERSION_1);
        nk_serializer answer;
        mine.serializeMsg(&answer);
        content->append(answer);
    } else if (msg->type() == nk_message::SHUTDOWN) {
        s_shutdown = true;
    }
}
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: minimal_device PORT\n");
        return 2;
    }
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    int yes = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener, 1) != 0) {
        std::perror("minimal_device: listen");
        return 1;
    }
    std::printf("device: listening on 127.0.0.1:%s\n", argv[1]);
    std::fflush(stdout);
    int station = ::accept(listener, nullptr, nullptr);

    nk_protocol engine(2, onRequest, nullptr, 10, nullptr, nullptr, nullptr);
    while (!s_shutdown) {
        engine.poll(nullptr, ctxOf(station), sendToSocket, recvFromSocket);
        tTime::sleep(5);
    }
    std::printf("device: shutting down\n");
    ::close(station);
    ::close(listener);
    return 0;
}
