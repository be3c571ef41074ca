// A minimal application of the installed library: needs nothing but the umbrella header.
#include <klNetBase/klNetBase.h>

#include <cstdio>
#include <string>

int main() {
    klNetMessage message;
    message << std::string("hello from a consumer") << 42;

    klNetMessage reader;
    reader.setRecvBuffers(message.takeSendBuffers());
    std::string text;
    int number = 0;
    reader >> text >> number;

    try {
        reader >> number;
        return 1;
    } catch (const klNetError& error) {
        std::printf("%s, %d; then: %s\n", text.c_str(), number, error.what());
    }
    return text == "hello from a consumer" && number == 42 ? 0 : 1;
}
