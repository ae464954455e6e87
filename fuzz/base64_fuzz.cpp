// Any text goes through the decoder, in buffers exactly as large as the length function says, and agrees with bits
// taken one by one. The encoders are compared with OpenSSL's by the tests.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <vela/core/crypto.h>

namespace
{

using bytes = std::vector<uint8_t>;

bytes decode_bit_by_bit(const std::string &text)
{
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/-_";
    bytes out;
    size_t bits = 0, held = 0, value;
    for (size_t i = 0; (value = letters.find(text[i])) != std::string::npos; ++i) {
        bits = bits << 6 | (value < 64 ? value : value - 2); // the second alphabet's last two
        held += 6;
        if (held < 8) continue;
        held -= 8;
        out.push_back(static_cast<uint8_t>(bits >> held));
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string all(reinterpret_cast<const char *>(data), size);
    const std::vector<char> text(all.c_str(), all.c_str() + strlen(all.c_str()) + 1);
    bytes expected = decode_bit_by_bit(text.data());
    expected.push_back(0);
    bytes out(static_cast<size_t>(base64_decode_len(text.data())));
    base64_decode(out.data(), text.data());
    if (expected.size() > out.size() || !std::equal(expected.begin(), expected.end(), out.begin())) abort();
    return 0;
}
