#include "daemon/reset.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <sys/reboot.h>
#include <unistd.h>
#include <vector>

#include "daemon/daemon_log.h"
#include "daemon/tess.h"
#include "framework/fixed_text.h"
#include "framework/tokenizer.h"
#include "framework/version_re_init.h"

namespace {

constexpr unsigned REBOOT_DELAY_S = 5;
constexpr int REBOOT_RESTART = 0x1234567; // RB_AUTOBOOT, reboot(2)

void logSystemError(const LogMessage& message)
{
    logMgr.log(message.id, (FixedText<256>() << message.text << std::strerror(errno)).c_str());
}

/// A name that merely begins with this host's name is taken for it (deliberate).
bool namesThisHost(std::string_view name)
{
    char host[64]{};
    return ::gethostname(host, sizeof host - 1) == 0 && name.starts_with(host);
}

bool isReinit(std::string_view word)
{
    return word.size() == 6 && ::strncasecmp(word.data(), "REINIT", 6) == 0;
}

bool mayReset(const char* line)
{
    std::vector<std::string_view> words;
    stringTokenizer(line, words, " ");
    if (words.size() == 1) return true;
    return words.size() == 3 && isReinit(words[1]) && namesThisHost(words[2]) && versionReInit() == 0;
}

} // namespace

int resetDevice(const char* line) noexcept
{
    if (!mayReset(line)) return 1;
    const pid_t child = ::fork();
    if (child < 0) {
        logSystemError(daemon_log::forkFailed);
        return 1;
    }
    if (child > 0) return 0;

    if (TTess* const tess = g_tess) tess->continueAsCopy();
    ::sync();
    ::sleep(REBOOT_DELAY_S);
    if (::reboot(REBOOT_RESTART) == 0) ::_exit(0);
    logSystemError(daemon_log::rebootFailed);
    return 1;
}
