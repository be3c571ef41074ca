#include <klNetBase/link/klNetLinkSealer.h>

#include <klNetBase/link/klSocketLink.h>

klNetLinkSealer::Acceptance::~Acceptance() = default;

klNetLinkSealer::~klNetLinkSealer() = default;

void klNetLinkSealer::accept(klSocketLink& link, const klNetNodeNames& names) {
    const std::unique_ptr<Acceptance> acceptance = startAccept(names);
    const std::string hello = acceptance->hello();
    link.send(hello.data(), hello.size());
    std::string received;
    for (std::size_t missing = acceptance->missing(received); missing > 0;
         missing = acceptance->missing(received)) {
        const std::size_t had = received.size();
        received.resize(had + missing);
        link.recv(received.data() + had, missing);
    }
    acceptance->finish(received, link);
}
