#include "Kiv/Trace.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace Kiv {

namespace {

constexpr uint32_t allLevels = 0xffffffffu;

bool validNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.' || c == ':' || c == '*';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Parses "0-5" or "9" into a mask; false when malformed.
bool parseLevelItem(std::string_view item, uint32_t& mask) {
    auto number = [](std::string_view s, unsigned& v) {
        if (s.empty() || !std::all_of(s.begin(), s.end(), isDigit)) {
            return false;
        }
        auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
        return ec == std::errc() && p == s.data() + s.size() && v < 32;
    };
    unsigned lo = 0, hi = 0;
    auto dash = item.find('-');
    if (dash == std::string_view::npos) {
        if (!number(item, lo)) {
            return false;
        }
        hi = lo;
    } else if (!number(item.substr(0, dash), lo) || !number(item.substr(dash + 1), hi) || hi < lo) {
        return false;
    }
    for (unsigned l = lo; l <= hi; ++l) {
        mask |= 1u << l;
    }
    return true;
}

// Splits on commas; an element that starts with a digit continues the level
// list of the setting before it ("Velik/0-5,9").
std::vector<std::string> splitSettings(std::string_view spec) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= spec.size()) {
        size_t comma = spec.find(',', start);
        if (comma == std::string_view::npos) {
            comma = spec.size();
        }
        std::string_view item = spec.substr(start, comma - start);
        if (!item.empty() && isDigit(item.front()) && !out.empty() &&
            out.back().find('/') != std::string::npos) {
            out.back().append(",").append(item);
        } else {
            out.emplace_back(item);
        }
        start = comma + 1;
    }
    return out;
}

bool parseOne(std::string_view text, TraceSetting& setting) {
    setting = TraceSetting{};
    if (!text.empty() && text.front() == '-') {
        setting.on = false;
        text.remove_prefix(1);
    }
    auto slash = text.find('/');
    std::string_view name = text.substr(0, slash);
    if (name.empty() || isDigit(name.front()) ||
        !std::all_of(name.begin(), name.end(), validNameChar)) {
        return false;
    }
    setting.pattern = std::string(name);
    if (slash == std::string_view::npos) {
        setting.levels = allLevels;
        return true;
    }
    std::string_view levels = text.substr(slash + 1);
    if (levels.empty()) {
        return false;
    }
    size_t start = 0;
    while (start <= levels.size()) {
        size_t comma = levels.find(',', start);
        if (comma == std::string_view::npos) {
            comma = levels.size();
        }
        if (!parseLevelItem(levels.substr(start, comma - start), setting.levels)) {
            return false;
        }
        start = comma + 1;
    }
    return true;
}

void appendTimeStamp(std::string& out) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm parts{};
    localtime_r(&ts.tv_sec, &parts);
    char buf[40];
    int n = snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%06ld", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                     ts.tv_nsec / 1000);
    out.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

}  // namespace

std::string TraceSetting::toString() const {
    std::string out = on ? "" : "-";
    out += pattern;
    if (levels == allLevels) {
        return out;
    }
    out += '/';
    bool first = true;
    for (unsigned l = 0; l < 32;) {
        if (!((levels >> l) & 1u)) {
            ++l;
            continue;
        }
        unsigned hi = l;
        while (hi + 1 < 32 && ((levels >> (hi + 1)) & 1u)) {
            ++hi;
        }
        out += first ? "" : ",";
        out += std::to_string(l);
        if (hi > l) {
            out += '-';
            out += std::to_string(hi);
        }
        first = false;
        l = hi + 1;
    }
    return out;
}

std::vector<TraceSetting> parseTraceSettings(std::string_view spec,
                                             std::vector<std::string>* errors) {
    std::vector<TraceSetting> settings;
    for (const std::string& item : splitSettings(spec)) {
        // Empty items and a lone "-" (the negation of an empty list) say nothing.
        if (item.empty() || item == "-") {
            continue;
        }
        TraceSetting setting;
        if (parseOne(item, setting)) {
            settings.push_back(std::move(setting));
        } else if (errors) {
            errors->push_back(item);
        }
    }
    return settings;
}

bool traceNameMatches(std::string_view pattern, std::string_view name) {
    // Greedy glob with backtracking to the last star: linear for one star,
    // and names are short.
    size_t p = 0, n = 0, star = std::string_view::npos, mark = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            mark = n;
        } else if (p < pattern.size() && pattern[p] == name[n]) {
            ++p;
            ++n;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            n = ++mark;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

void formatTraceLine(std::string& out, std::string_view format, std::string_view facility,
                     unsigned level, std::string_view file, int line, std::string_view function,
                     std::string_view text) {
    if (format.empty()) {
        format = defaultTraceFormat;
    }
    for (size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c != '%' || i + 1 == format.size()) {
            out += c;
            continue;
        }
        switch (format[++i]) {
            case 't':
                appendTimeStamp(out);
                break;
            case 'f':
                out += facility;
                break;
            case 'l':
                out += std::to_string(level);
                break;
            case 'F':
                out += file;
                break;
            case 'L':
                out += std::to_string(line);
                break;
            case 'n':
                out += function;
                break;
            case 'm':
                out += text;
                break;
            case '%':
                out += '%';
                break;
            default:
                out += '%';
                out += format[i];
        }
    }
}

TraceManager& TraceManager::instance() {
    // Never destroyed: trace lines may be written from static destructors.
    static TraceManager* manager = new TraceManager();
    return *manager;
}

TraceManager::Output::~Output() {
    if (fd != 2) {
        ::close(fd);
    }
}

TraceManager::TraceManager()
    : format_(std::make_shared<const std::string>()), output_(std::make_shared<const Output>()) {
    readEnvironment();
}

TraceFacility& TraceManager::facility(std::string_view name) {
    std::lock_guard lock(mutex_);
    for (auto& f : facilities_) {
        if (f->name() == name) {
            return *f;
        }
    }
    facilities_.push_back(std::make_unique<TraceFacility>(std::string(name)));
    facilities_.back()->levelMask_ = levelsFor(name);
    return *facilities_.back();
}

uint32_t TraceManager::levelsFor(std::string_view name) const {
    uint32_t mask = 0;
    for (const TraceSetting& s : settings_) {
        if (traceNameMatches(s.pattern, name)) {
            mask = s.on ? (mask | s.levels) : (mask & ~s.levels);
        }
    }
    return mask;
}

void TraceManager::readEnvironment() {
    const char* trace = getenv("TRACE");
    const char* format = getenv("TRACEFORMAT");
    const char* file = getenv("TRACEFILE");
    std::vector<std::string> errors;
    auto settings = parseTraceSettings(trace ? trace : "", &errors);

    std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
    for (auto& f : facilities_) {
        f->levelMask_ = levelsFor(f->name());
    }
    format_ = std::make_shared<const std::string>(format ? format : "");
    openOutput(file);
    reportMalformed(errors);
}

void TraceManager::openOutput(const char* path) {
    const std::string wanted = path ? path : "";
    // Re-reading the environment is frequent (every trace setting change);
    // the same file stays open rather than being opened again.
    if (wanted == output_->path) {
        return;
    }
    auto output = std::make_shared<Output>();
    if (!wanted.empty()) {
        const int fd = open(wanted.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) {
            fprintf(stderr, "Kiv trace: cannot open TRACEFILE \"%s\" (errno %d), using stderr\n",
                    wanted.c_str(), errno);
        } else {
            output->path = wanted;
            output->fd = fd;
        }
    }
    // The previous file closes when the last thread writing to it is done.
    output_ = std::move(output);
}

void TraceManager::reportMalformed(const std::vector<std::string>& errors) {
    for (const std::string& e : errors) {
        if (reported_.insert(e).second) {
            fprintf(stderr, "Kiv trace: ignoring malformed TRACE setting \"%s\"\n", e.c_str());
        }
    }
}

std::vector<std::string> TraceManager::settings() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(settings_.size());
    for (const TraceSetting& s : settings_) {
        out.push_back(s.toString());
    }
    return out;
}

void TraceManager::write(std::string_view facility, unsigned level, const char* file, int line,
                         const char* function, const char* text, size_t length) noexcept {
    // Tracing must not disturb the caller's errno (it may be about to report it).
    int savedErrno = errno;
    try {
        std::shared_ptr<const std::string> format;
        std::shared_ptr<const Output> output;
        {
            std::lock_guard lock(mutex_);
            format = format_;
            output = output_;
        }
        const int fd = output->fd;
        std::string out;
        out.reserve(length + 96);
        formatTraceLine(out, *format, facility, level, file ? file : "", line,
                        function ? function : "", std::string_view(text, length));
        out += '\n';
        // One write per line keeps lines whole when threads trace together.
        const char* p = out.data();
        size_t left = out.size();
        while (left > 0) {
            ssize_t n = ::write(fd, p, left);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
    } catch (...) {
        // Out of memory while tracing: drop the line rather than fail the caller.
    }
    errno = savedErrno;
}

}  // namespace Kiv
