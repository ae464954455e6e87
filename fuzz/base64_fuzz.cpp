// Any bytes go through the encoders and back; any text goes through the decoder and agrees with bits taken one by one.
// Every buffer is exactly as large as the length functions say.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <vela/core/crypto.h>

namespace
{

using bytes = std::vector<uint8_t>;

void require(bool condition)
{
    if (!condition) abort();
}

bytes decode(const char *text)
{
    bytes out(static_cast<size_t>(base64_decode_len(text)));
    base64_decode(out.data(), text);
    return out;
}

bytes decode_bit_by_bit(const std::string &text)
{
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    bytes out;
    unsigned bits = 0, held = 0;
    for (const char c : text) {
        const size_t found = c == '+' || c == '-' ? 62 : c == '/' || c == '_' ? 63 : letters.find(c);
        if (found == std::string::npos) break;
        bits = bits << 6 | static_cast<unsigned>(found);
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
    const int n = static_cast<int>(size);
    for (const auto encode : {base64rfc_encode, base64url_encode}) {
        std::vector<char> text(static_cast<size_t>(base64_encode_len(n)));
        encode(text.data(), data, n);
        require(size == 0 || memcmp(data, decode(text.data()).data(), size) == 0);
    }

    const std::string text(reinterpret_cast<const char *>(data), size);
    const bytes exact(text.c_str(), text.c_str() + strlen(text.c_str()) + 1);
    const bytes out = decode(reinterpret_cast<const char *>(exact.data()));
    const bytes expected = decode_bit_by_bit(text);
    require(expected.size() < out.size() && out[expected.size()] == 0);
    require(std::equal(expected.begin(), expected.end(), out.begin()));
    return 0;
}
