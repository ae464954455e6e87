// Building and opening a packet of 256 bytes, beside the random-seed reads that each IV costs and OpenSSL's cipher.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>
#include <vela/discovery/protocol.h>

namespace
{

constexpr size_t payload_size = 256;

struct vela_protocol_ctrl site()
{
    struct vela_protocol_ctrl ctrl = {};
    for (uint8_t i = 0; i < 16; ++i) ctrl.key[i] = i;
    ctrl.rx_seq = 0xFFF;
    return ctrl;
}

void peer_seed(benchmark::State &state)
{
    for (auto _ : state) {
        uint32_t seed = 0;
        const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(read(fd, &seed, sizeof seed));
        close(fd);
        srand(seed);
    }
}
BENCHMARK(peer_seed)->Name("payload, built and opened/scale:seeding from urandom");

void peer_cipher(benchmark::State &state)
{
    uint8_t key[16] = {}, iv[16] = {}, data[payload_size + 16] = {};
    int n = 0;
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    for (auto _ : state) {
        EVP_EncryptInit_ex(context, EVP_aes_128_cbc(), nullptr, key, iv);
        EVP_CIPHER_CTX_set_padding(context, 0);
        EVP_EncryptUpdate(context, data, &n, data, sizeof data);
        EVP_DecryptInit_ex(context, EVP_aes_128_cbc(), nullptr, key, iv);
        EVP_CIPHER_CTX_set_padding(context, 0);
        EVP_DecryptUpdate(context, data, &n, data, sizeof data);
        benchmark::ClobberMemory();
    }
    EVP_CIPHER_CTX_free(context);
}
BENCHMARK(peer_cipher)->Name("payload, built and opened/scale:OpenSSL, the cipher only");

void build_and_open(benchmark::State &state)
{
    struct vela_protocol_ctrl ctrl = site();
    const uint8_t payload[payload_size] = {};
    for (auto _ : state) {
        vela_packet *packet = gen_payload(payload, payload_size, 1, 1, 1, &ctrl);
        benchmark::DoNotOptimize(dec_payload(40 + payload_size + 16, packet, &ctrl));
        free(packet);
    }
}
BENCHMARK(build_and_open)->Name("payload, built and opened/vela");

} // namespace

BENCHMARK_MAIN();
