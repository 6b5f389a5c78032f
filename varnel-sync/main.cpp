// varnel-sync: the process around the command-line library. Sets up translation, the
// terminal facts and Ctrl-C, then hands over to varnel::cli::run.

#include "common/Localization.hpp"
#include "varnel-sync/CommandLine.hpp"

#include <libintl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <exception>
#include <iostream>
#include <thread>

namespace {

// Ctrl-C and SIGTERM are taken by one thread with sigwait, so the work can be asked to
// stop safely outside a signal handler. A second Ctrl-C ends the process at once.
void watchInterrupts(std::shared_ptr<varnel::cli::Interruption> interruption) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // inherited by every thread started later
    const std::string message = std::string("\n") + varnel::tr("Stop safely. Files already copied stay complete.") + "\n";
    std::thread([signals, interruption, message] {
        int received = 0;
        while (sigwait(&signals, &received) == 0) {
            if (interruption->isInterrupted() || interruption->exitsAtOnce()) _exit(130);
            [[maybe_unused]] const auto written = ::write(STDERR_FILENO, message.data(), message.size());
            interruption->interrupt();
        }
    }).detach();
}

varnel::cli::Terminal terminal() {
    varnel::cli::Terminal facts;
    facts.stdinIsTerminal = ::isatty(STDIN_FILENO) == 1;
    facts.stdoutIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    facts.stderrIsTerminal = ::isatty(STDERR_FILENO) == 1;
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) facts.columns = size.ws_col;
    return facts;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    bindtextdomain(varnel::kTextDomain, VARNEL_LOCALE_DIR);
    bind_textdomain_codeset(varnel::kTextDomain, "UTF-8");
    textdomain(varnel::kTextDomain);
    std::signal(SIGPIPE, SIG_IGN);  // a closed pipe or quit pager ends output, not the process

    try {
        varnel::cli::Io io{std::cin, std::cout, std::cerr, terminal()};
        io.processEndsWithCommand = true;
        watchInterrupts(io.interruption);
        const std::vector<std::string> arguments(argv + 1, argv + argc);
        const int status = varnel::cli::run(arguments, io);
        std::cout.flush();
        return status;
    } catch (const std::exception& error) {
        std::cerr << "varnel-sync: " << error.what() << '\n';
        return 5;
    }
}
