// Texts of /proc, in a block of exactly their size: the first byte chooses the parser.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vela/core/util.h>
#include <vela/monitor/internal/load_text.h>
#include <vela/monitor/internal/process_stat.h>

namespace
{

bool ends(const char *text, size_t size) { return strnlen(text, size) < size; }

template <class Record> void read(bool parse(std::string_view, Record &), std::string_view text)
{
    Record record;
    (void)parse(text, record);
}

void command_line(std::string_view text)
{
    const size_t size = std::min(text.size(), sizeof vela_process::cmdline + 3);
    const std::unique_ptr<char[]> block(new char[size + 1]);
    std::copy_n(text.data(), size, block.get());
    vela_process process;
    vela::write_command_line(block.get(), size, process.cmdline);
    if (!ends(process.cmdline, sizeof process.cmdline)) abort();
    for (const char *c = process.cmdline; *c; ++c) {
        if (static_cast<unsigned char>(*c) < ' ') abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0) return 0;
    const std::unique_ptr<char[]> block(new char[size - 1]);
    std::copy(data + 1, data + size, block.get());
    const std::string_view text{block.get(), size - 1};
    vela_process process;
    switch (data[0] % 6) {
    case 0:
        if (vela::parse_process_stat(text, process) && !ends(process.name, sizeof process.name)) abort();
        break;
    case 1: command_line(text); break;
    case 2: read(vela::parse_cpu_times, text); break;
    case 3: read(vela::parse_memory, text); break;
    case 4: read(vela::parse_stalls, text); break;
    default: read(vela::parse_loadavg, text); break;
    }
    return 0;
}
