#include "orvix_testing/signals.h"

namespace orvix_testing {

struct sigaction disposition(int signo) {
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa;
}

void set_disposition(int signo, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigaction(signo, &sa, nullptr);
}

saved_dispositions::saved_dispositions(std::initializer_list<int> signals) {
    for (int signo : signals) {
        saved_.emplace_back(signo, disposition(signo));
    }
}

saved_dispositions::~saved_dispositions() {
    for (const auto& [signo, sa] : saved_) {
        sigaction(signo, &sa, nullptr);
    }
}

void saved_dispositions::set_defaults() const {
    for (const auto& saved : saved_) {
        set_disposition(saved.first, SIG_DFL);
    }
}

} // namespace orvix_testing
