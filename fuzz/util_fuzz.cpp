// The helpers that take text from outside. jansson, which keeps valid UTF-8 only, says what a clean text is.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <vela/core/internal/json.h>
#include <vela/core/util.h>

namespace
{

/// A block of exactly the text and its NUL.
std::vector<char> copy_of(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

void check(bool holds)
{
    if (!holds) abort();
}

bool is_clean(const std::string &text) { return vela::json_ref{json_string(text.c_str())} != nullptr; }

std::string sanitized(const std::string &text)
{
    auto copy = copy_of(text);
    utf8_sanitize(copy.data());
    return copy.data();
}

void convert_and_cut(const char *text, size_t size)
{
    std::vector<char> out(size);
    uint8_t mac[6];
    (void)hex2uchar(text, reinterpret_cast<uint8_t *>(out.data()), size);
    (void)strtomac(text, mac);
    strncpy_trim(out.data(), size, text);
    check(size == 0 || strlen(out.data()) < size);
    strip_vlan_suffix(out.data(), text, size);
    check(size == 0 || (strlen(out.data()) < size && !strchr(out.data(), '.')));
    trim_trailing(copy_of(text).data(), strlen(text));
}

/// A memory stream refuses to grow, so no line may move.
void comment_out(const std::string &bytes, const char *patterns)
{
    std::string lines = bytes;
    FILE *stream = bytes.empty() ? nullptr : fmemopen(lines.data(), lines.size(), "r+");
    if (!stream) return;
    (void)comment_out_lines(stream, patterns);
    (void)fclose(stream);
    for (size_t i = 0; i < lines.size(); ++i) check(lines[i] == bytes[i] || lines[i] == '#');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2) return 0;
    const std::string bytes(data + 2, data + size), text = bytes.c_str(), before(data[0], 'a');
    const std::string clean = sanitized(text);
    check(is_clean(clean) && clean.size() == text.size() && (clean == text || !is_clean(text)));
    check(before + clean == sanitized(before + text)); // wherever it stands

    const size_t length = utf8_truncate_len(copy_of(text).data(), data[0], data[1]);
    check(length <= data[1] && length <= text.size());
    check(is_clean(text.substr(0, length)) || !is_clean(text));

    convert_and_cut(copy_of(text).data(), data[1]);
    comment_out(bytes, text.c_str());
    return 0;
}
