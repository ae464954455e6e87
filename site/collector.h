// The services that a device reports to, on one machine: a real HTTPS server on port 443 of the world's loopback, whose
// certificate authority the world trusts. It records every request, plays back what it was told to answer, misbehaves
// on demand, and is a DNS-over-HTTPS resolver as well.
//
//   site::collector service({.names = {"crash.vela.example"}});
//   service.on("/v1/crash", site::reply{200, R"({"upload_url": "https://crash.vela.example/up"})"});
//   ... the device reports ...
//   for (const auto &request : service.requests()) ...
//
// It works in a thread of its own, which the destructor ends whatever clients are doing.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace site
{

struct request {
    std::string method;
    std::string host;
    std::string path; ///< with the query, if there is one
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    /// A header's value, whatever the case of its name; "" when the client did not send it.
    [[nodiscard]] std::string header(std::string_view name) const;
};

/// What the collector does with a request.
struct reply {
    enum class conduct {
        answers, ///< status, headers and body
        blurts,  ///< sends the body as it is, without HTTP around it, and closes
        stalls   ///< says nothing, ever
    };
    int status = 200;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    conduct how = conduct::answers;
};

reply redirect(const std::string &location, int status = 302); ///< to itself, it is a circle
reply stalled();
reply cut_short(); ///< promises a longer body than it sends
reply garbage();   ///< bytes that are no HTTP

/// Which certificate the next connections see.
enum class identity { trusted, untrusted_authority, wrong_name };

class collector
{
public:
    struct settings {
        std::vector<std::string> names;                     ///< in the certificate and in /etc/hosts
        std::vector<std::string> unlisted;                  ///< in the certificate only: DNS must find them
        std::vector<std::string> addresses = {"127.0.0.1"}; ///< of loopback; added to it where missing
    };
    /// Listens when it returns. Ends the program when it cannot.
    explicit collector(const settings &wanted);
    collector(const collector &) = delete;
    collector &operator=(const collector &) = delete;
    ~collector();

    /// What to do with requests for a path ("/up") or for one host's ("a.example/up", looked up first). Several
    /// replies are given in turn, the last one from then on; none takes the script back. Anything else is answered with
    /// 404.
    void on(const std::string &where, reply reply);
    void on(const std::string &where, std::vector<reply> replies);

    /// What /dns-query answers about a name: its addresses of either family, none for a name that has none. Names
    /// never told about do not exist.
    void resolve(const std::string &name, std::vector<std::string> addresses);

    void present(identity identity);

    /// The requests since the last call, in the order of their arrival.
    std::vector<request> requests();

private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace site
