#include "tests/support/log_capture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace {

/// "TIME [TAG] NUMBER TEXT"; the tag, which may be absent, ends with ']'.
LogLine parsed(std::string_view line)
{
    const std::string whole(line);
    std::string_view rest = line;
    const std::size_t timeEnd = rest.find("Z");
    if (timeEnd == std::string_view::npos) return {0, whole};
    rest.remove_prefix(timeEnd + 1);
    if (const std::size_t tagEnd = rest.find("] "); rest.find('[') < tagEnd && tagEnd != std::string_view::npos)
        rest.remove_prefix(tagEnd + 1);
    char* end = nullptr;
    const std::string numbered(rest);
    const long id = std::strtol(numbered.c_str(), &end, 10);
    if (id == 0 || *end != ' ') return {0, whole};
    return {static_cast<int>(id), std::string(end + 1)};
}

} // namespace

void PrintTo(const LogLine& line, std::ostream* out)
{
    *out << line.id << " \"" << line.text << '"';
}

// A file of the disk's kind where there is one: one in memory may refuse what comes while another
// thread is writing.
LogCapture::LogCapture() : file_(std::tmpfile())
{
    if (file_ == nullptr) std::abort();
    caught_ = ::fileno(file_);
    standardError_.emplace(caught_);
}

LogCapture::~LogCapture()
{
    standardError_.reset();
    const std::string all = text();
    if (all.find("Sanitizer") != std::string::npos) std::fputs(all.c_str(), stderr);
    std::fclose(file_);
}

std::string LogCapture::text() const
{
    const off_t size = ::lseek(caught_, 0, SEEK_CUR);
    std::string all(static_cast<std::size_t>(std::max<off_t>(size, 0)), '\0');
    const ssize_t got = ::pread(caught_, all.data(), all.size(), 0);
    all.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return all;
}

std::vector<LogLine> LogCapture::lines() const
{
    std::vector<LogLine> found;
    std::istringstream in(text());
    for (std::string line; std::getline(in, line);)
        found.push_back(parsed(line));
    return found;
}

int LogCapture::count(const LogLine& line) const
{
    const std::vector<LogLine> all = lines();
    return static_cast<int>(std::ranges::count(all, line));
}
