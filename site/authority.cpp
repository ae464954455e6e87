#include "site/authority.h"

#include <cstdlib>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace site
{
namespace
{

constexpr int x509_v3 = 2;
constexpr long an_hour = 3600;
constexpr long validity_seconds = 24 * an_hour;

template <class T> T *must(T *made)
{
    if (made) return made;
    ERR_print_errors_fp(stderr);
    abort();
}

void must(int result)
{
    if (result > 0) return;
    ERR_print_errors_fp(stderr);
    abort();
}

key_ptr make_key() { return key_ptr{must(EVP_EC_gen("P-256"))}; }

void add_extension(X509 *certificate, X509 *issuer, int kind, const std::string &value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *extension = must(X509V3_EXT_nconf_nid(nullptr, &context, kind, value.c_str()));
    must(X509_add_ext(certificate, extension, -1));
    X509_EXTENSION_free(extension);
}

certificate_ptr make_certificate(const std::string &name, EVP_PKEY *key)
{
    certificate_ptr made{must(X509_new())};
    uint32_t serial = 0;
    must(RAND_bytes(reinterpret_cast<unsigned char *>(&serial), sizeof serial));
    must(X509_set_version(made.get(), x509_v3));
    must(ASN1_INTEGER_set(X509_get_serialNumber(made.get()), static_cast<long>(serial >> 1) + 1));
    must(X509_gmtime_adj(X509_getm_notBefore(made.get()), -an_hour)); // clocks differ a little
    must(X509_gmtime_adj(X509_getm_notAfter(made.get()), validity_seconds));
    must(X509_set_pubkey(made.get(), key));
    must(X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0));
    return made;
}

std::string subject_names(const std::vector<std::string> &names, const std::vector<std::string> &addresses)
{
    std::string list;
    for (const auto &name : names) list += ",DNS:" + name;
    for (const auto &address : addresses) list += ",IP:" + address;
    return list.substr(1);
}

} // namespace

authority::authority(const std::string &name) : key_{make_key()}, certificate_{make_certificate(name, key_.get())}
{
    X509 *self = certificate_.get();
    must(X509_set_issuer_name(self, X509_get_subject_name(self)));
    add_extension(self, self, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(self, self, NID_key_usage, "critical,keyCertSign,cRLSign");
    add_extension(self, self, NID_subject_key_identifier, "hash");
    must(X509_sign(self, key_.get(), EVP_sha256()));
}

tls_context authority::server(const std::vector<std::string> &names, const std::vector<std::string> &addresses) const
{
    const key_ptr key = make_key();
    const certificate_ptr certificate = make_certificate(names.empty() ? addresses.at(0) : names[0], key.get());
    must(X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate_.get())));
    add_extension(certificate.get(), certificate_.get(), NID_basic_constraints, "critical,CA:FALSE");
    add_extension(certificate.get(), certificate_.get(), NID_ext_key_usage, "serverAuth");
    add_extension(certificate.get(), certificate_.get(), NID_subject_alt_name, subject_names(names, addresses));
    must(X509_sign(certificate.get(), key_.get(), EVP_sha256()));

    tls_context context{must(SSL_CTX_new(TLS_server_method()))};
    must(SSL_CTX_use_certificate(context.get(), certificate.get()));
    must(SSL_CTX_use_PrivateKey(context.get(), key.get()));
    return context;
}

std::string authority::pem() const
{
    BIO *memory = must(BIO_new(BIO_s_mem()));
    must(PEM_write_bio_X509(memory, certificate_.get()));
    char *text = nullptr;
    const long length = BIO_get_mem_data(memory, &text);
    std::string result(text, static_cast<size_t>(length));
    BIO_free(memory);
    return result;
}

} // namespace site
