// Puts the figures of all benchmark programs into one table: what, ours, the peer's, their ratio and how the time
// grows.
//
//   bench-report FILE...          the table
//   bench-report --json FILE...   the same as JSON
//   bench-report --plot FILE...   data for gnuplot: a block per growing row, then one of ratios
//
// Each FILE is a program's --benchmark_format=json with repetitions. Rows are named WHAT/WHO or WHAT/WHO/SIZE, where
// WHO is "vela" for ours, another name for a peer that does the same work, "scale:NAME" for one that does other work
// and is there for comparison. A ratio is our time over the peer's, repetition by repetition.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <jansson.h>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace
{

struct drop_reference {
    void operator()(json_t *value) const { json_decref(value); }
};
using json = std::unique_ptr<json_t, drop_reference>;

constexpr std::string_view ours = "vela";
constexpr std::string_view scale_mark = "scale:";

/// The times of one row, in nanoseconds, one per repetition.
using times = std::vector<double>;

double median(times t)
{
    if (t.empty()) return NAN;
    std::nth_element(t.begin(), t.begin() + static_cast<ptrdiff_t>(t.size() / 2), t.end());
    return t[t.size() / 2];
}

/// What is measured, at one size: ours and each peer's times.
struct subject {
    std::string what;
    double size = 0;     ///< 0: it has none
    long long place = 0; ///< where its program registered it: runs take turns in no order
    std::map<std::string, times> by_who;
};

struct row {
    const subject *about;
    std::string who; ///< the peer; "" for a row without one
    double mine, theirs, ratio, least, most;
    bool same_work;
};

class collection
{
public:
    bool add(const char *path)
    {
        json_error_t error;
        const json document{json_load_file(path, 0, &error)};
        if (!document) {
            fprintf(stderr, "bench-report: %s: %s\n", path, error.text);
            return false;
        }
        const json_t *runs = json_object_get(document.get(), "benchmarks");
        for (size_t i = 0; i < json_array_size(runs); ++i) add_run(json_array_get(runs, i));
        ++files_;
        return true;
    }
    /// By program, what, size.
    void sort()
    {
        std::map<std::string, long long> places;
        for (const subject &s : subjects_) {
            const auto [known, is_new] = places.emplace(s.what, s.place);
            if (!is_new) known->second = std::min(known->second, s.place);
        }
        std::sort(subjects_.begin(), subjects_.end(), [&places](const subject &a, const subject &b) {
            return std::pair(places[a.what], a.size) < std::pair(places[b.what], b.size);
        });
    }
    [[nodiscard]] const std::vector<subject> &subjects() const { return subjects_; }

private:
    void add_run(const json_t *run)
    {
        const char *kind = json_string_value(json_object_get(run, "run_type"));
        const char *name = json_string_value(json_object_get(run, "run_name"));
        if (!name || !kind || strcmp(kind, "iteration") != 0 || json_object_get(run, "error_occurred")) return;
        std::string_view rest = name;
        rest = rest.substr(0, std::min({rest.find("/real_time"), rest.find("/manual_time"), rest.find("/process_time"),
                                        rest.find("/iterations:")}));
        const size_t first = rest.find('/');
        if (first == std::string_view::npos) return;
        const std::string what(rest.substr(0, first));
        rest.remove_prefix(first + 1);
        const size_t second = rest.find('/');
        const double size =
            second == std::string_view::npos ? 0 : strtod(std::string(rest.substr(second + 1)).c_str(), nullptr);
        subject &measured = of(what, size);
        measured.place = files_ * 1000 + json_integer_value(json_object_get(run, "family_index"));
        measured.by_who[std::string(rest.substr(0, second))].push_back(nanoseconds(run));
    }

    static double nanoseconds(const json_t *run)
    {
        const char *real = json_string_value(json_object_get(run, "name"));
        const char *unit = json_string_value(json_object_get(run, "time_unit"));
        const bool waits = real && (strstr(real, "/real_time") || strstr(real, "/manual_time"));
        const double t = json_number_value(json_object_get(run, waits ? "real_time" : "cpu_time"));
        return t * (!unit || strcmp(unit, "ns") == 0 ? 1
                    : strcmp(unit, "us") == 0        ? 1e3
                    : strcmp(unit, "ms") == 0        ? 1e6
                                                     : 1e9);
    }

    subject &of(const std::string &what, double size)
    {
        const auto found = std::find_if(subjects_.begin(), subjects_.end(),
                                        [&](const subject &s) { return s.what == what && s.size == size; });
        return found != subjects_.end() ? *found : subjects_.emplace_back(subject{what, size, {}});
    }

    std::vector<subject> subjects_;
    long long files_ = 0;
};

/// The exponent of the growth of our time with the size, by least squares; not a number with fewer than two sizes.
double growth(const std::vector<subject> &subjects, const std::string &what)
{
    double n = 0, x = 0, y = 0, xx = 0, xy = 0;
    for (const subject &s : subjects) {
        const auto mine = s.by_who.find(std::string(ours));
        if (s.what != what || s.size <= 0 || mine == s.by_who.end()) continue;
        const double lx = std::log(s.size);
        const double ly = std::log(median(mine->second));
        n += 1, x += lx, y += ly, xx += lx * lx, xy += lx * ly;
    }
    return n < 2 ? NAN : (n * xy - x * y) / (n * xx - x * x);
}

std::vector<row> rows_of(const std::vector<subject> &subjects)
{
    std::vector<row> rows;
    for (const subject &s : subjects) {
        const auto mine = s.by_who.find(std::string(ours));
        if (mine == s.by_who.end()) continue;
        bool has_peer = false;
        for (const auto &[who, theirs] : s.by_who) {
            if (who == ours) continue;
            has_peer = true;
            times ratios;
            for (size_t i = 0; i < std::min(theirs.size(), mine->second.size()); ++i) {
                ratios.push_back(mine->second[i] / theirs[i]);
            }
            const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
            const bool same_work = who.compare(0, scale_mark.size(), scale_mark) != 0;
            rows.push_back({&s, who, median(mine->second), median(theirs), median(ratios), *least, *most, same_work});
        }
        if (!has_peer) rows.push_back({&s, "", median(mine->second), NAN, NAN, NAN, NAN, false});
    }
    return rows;
}

std::string time_text(double ns)
{
    if (std::isnan(ns)) return "-";
    struct unit {
        double limit, factor;
        const char *name;
    };
    constexpr unit units[] = {{1e3, 1, "ns"}, {1e6, 1e3, "us"}, {1e9, 1e6, "ms"}, {INFINITY, 1e9, "s"}};
    const auto *u =
        std::find_if(std::begin(units), std::end(units), [ns](const unit &each) { return ns < each.limit; });
    char text[32];
    snprintf(text, sizeof text, "%.3g %s", ns / u->factor, u->name);
    return text;
}

std::string number_text(double value, const char *format)
{
    char text[32] = "-";
    if (!std::isnan(value)) snprintf(text, sizeof text, format, value);
    return text;
}

void print_table(const std::vector<subject> &subjects)
{
    printf("%-34s %9s  %10s  %10s  %-22s %6s  %-13s %s\n", "what", "size", "ours", "peer's", "peer", "ratio", "range",
           "growth");
    const std::string *before = nullptr;
    for (const row &r : rows_of(subjects)) {
        const bool first = !before || *before != r.about->what;
        before = &r.about->what;
        char range[32] = "";
        if (!std::isnan(r.ratio)) snprintf(range, sizeof range, "%.2f - %.2f", r.least, r.most);
        const double exponent = first ? growth(subjects, r.about->what) : NAN;
        printf("%-34s %9s  %10s  %10s  %-22s %6s  %-13s %s\n", r.about->what.c_str(),
               r.about->size > 0 ? number_text(r.about->size, "%.0f").c_str() : "", time_text(r.mine).c_str(),
               time_text(r.theirs).c_str(), r.who.c_str(), number_text(r.ratio, "%.2f").c_str(), range,
               std::isnan(exponent) ? "" : number_text(exponent, "n^%.2f").c_str());
    }
    puts("\nratio: our time over the peer's, below 1 is faster; range: over the repetitions, which take turns.\n"
         "\"scale:\" names other work of a known size, for comparison. growth: exponent of our time over the size.");
}

void set_number(json_t *object, const char *key, double value)
{
    json_object_set_new(object, key, std::isnan(value) ? json_null() : json_real(value));
}

void print_json(const std::vector<subject> &subjects)
{
    const json rows{json_array()};
    for (const row &r : rows_of(subjects)) {
        json_t *each = json_object();
        json_object_set_new(each, "what", json_string(r.about->what.c_str()));
        set_number(each, "size", r.about->size > 0 ? r.about->size : NAN);
        json_object_set_new(each, "peer", r.who.empty() ? json_null() : json_string(r.who.c_str()));
        json_object_set_new(each, "same_work", json_boolean(r.same_work));
        set_number(each, "ours_ns", r.mine);
        set_number(each, "peer_ns", r.theirs);
        set_number(each, "ratio", r.ratio);
        set_number(each, "ratio_least", r.least);
        set_number(each, "ratio_most", r.most);
        set_number(each, "growth", growth(subjects, r.about->what));
        json_array_append_new(rows.get(), each);
    }
    json_dumpf(rows.get(), stdout, JSON_INDENT(1) | JSON_REAL_PRECISION(6));
    putchar('\n');
}

/// Blocks as gnuplot's "index" counts them: the growing rows by name, and last the ratios of equal work.
void print_plot(const std::vector<subject> &subjects)
{
    std::vector<std::string> done;
    for (const subject &s : subjects) {
        if (std::find(done.begin(), done.end(), s.what) != done.end() || std::isnan(growth(subjects, s.what))) continue;
        done.push_back(s.what);
        printf("\"%s\"\n", s.what.c_str());
        for (const subject &at : subjects) {
            const auto mine = at.by_who.find(std::string(ours));
            if (at.what == s.what && mine != at.by_who.end()) printf("%g %g\n", at.size, median(mine->second));
        }
        puts("\n");
    }
    puts("ratios");
    for (const row &r : rows_of(subjects)) {
        if (!r.same_work || std::isnan(r.ratio)) continue;
        const std::string size = r.about->size > 0 ? number_text(r.about->size, " %.0f") : "";
        printf("\"%s%s / %s\" %g %g %g\n", r.about->what.c_str(), size.c_str(), r.who.c_str(), r.ratio, r.least,
               r.most);
    }
}

} // namespace

int main(int argc, char **argv)
{
    struct form {
        std::string_view option;
        void (*print)(const std::vector<subject> &);
    };
    constexpr form forms[] = {{"--json", print_json}, {"--plot", print_plot}};
    void (*print)(const std::vector<subject> &) = print_table;
    collection all;
    for (int i = 1; i < argc; ++i) {
        const auto *chosen =
            std::find_if(std::begin(forms), std::end(forms), [&](const form &f) { return f.option == argv[i]; });
        if (chosen != std::end(forms)) {
            print = chosen->print;
        } else if (!all.add(argv[i])) {
            return 1;
        }
    }
    all.sort();
    print(all.subjects());
    return fflush(stdout) == 0 ? 0 : 1;
}
