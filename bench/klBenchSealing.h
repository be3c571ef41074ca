// Sealing a connected link pair with a farm key for the benchmarks that compare sealed links with
// plain ones (needs the codecs library).
#pragma once

#include "klBenchSupport.h"

#include <klNetBase/codecs/klNetFarmKey.h>
#include <klNetBase/codecs/klNetFarmSealer.h>
#include <klNetBase/link/klNetNodeNames.h>

#include <array>
#include <cstdint>
#include <exception>
#include <thread>

namespace klbench {

// Seals both ends with a fixed key of the benchmarks' own: the accepting end reads the sealed
// greeting and answers it on a thread of its own, as a service would.
inline void sealLinks(klSocketLink& connecting, klSocketLink& accepting) {
    std::array<std::uint8_t, klNetFarmKey::kSize> bytes;
    bytes.fill(0x5A);
    klNetFarmSealer sealer{klNetFarmKey(bytes)};
    // The pair is one connection: the accepting end answers to the name the connecting end uses.
    klNetNodeNames names;
    names.add("bench", 1);
    std::exception_ptr failure;
    std::thread acceptor([&] {
        try {
            std::uint32_t greeting = 0;
            accepting.recv(&greeting, sizeof(greeting));
            sealer.accept(accepting, names);
        } catch (...) {
            failure = std::current_exception();
        }
    });
    try {
        sealer.connect(connecting, klNetNodeNames::nameOf("bench", 1), 10.0);
    } catch (...) {
        accepting.shutdown();  // the acceptor ends at once
        acceptor.join();
        throw;
    }
    acceptor.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace klbench
