// A certificate authority of the site's own: an elliptic-curve key made anew in every process that asks for one.
#pragma once

#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <vector>

namespace site
{

template <auto Free> struct openssl_free {
    template <class T> void operator()(T *held) const { Free(held); }
};
using key_ptr = std::unique_ptr<EVP_PKEY, openssl_free<EVP_PKEY_free>>;
using certificate_ptr = std::unique_ptr<X509, openssl_free<X509_free>>;
using tls_context = std::unique_ptr<SSL_CTX, openssl_free<SSL_CTX_free>>;

class authority
{
public:
    explicit authority(const std::string &name);

    /// A server's TLS settings: a fresh key, and a certificate of this authority for host names and IP addresses.
    [[nodiscard]] tls_context server(const std::vector<std::string> &names,
                                     const std::vector<std::string> &addresses = {}) const;
    /// The authority's own certificate, as clients install it.
    [[nodiscard]] std::string pem() const;

private:
    key_ptr key_;
    certificate_ptr certificate_;
};

} // namespace site
