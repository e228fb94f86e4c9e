// Signal dispositions are process-wide: tests that look at them or change them.
#pragma once

#include <signal.h>

#include <initializer_list>
#include <utility>
#include <vector>

namespace orvix_testing {

struct sigaction disposition(int signo);
/// `handler` with no flags and an empty mask.
void set_disposition(int signo, void (*handler)(int));

/// The dispositions of `signals`, set back as they were when this goes.
class saved_dispositions {
public:
    explicit saved_dispositions(std::initializer_list<int> signals);
    ~saved_dispositions();
    saved_dispositions(const saved_dispositions&) = delete;
    saved_dispositions& operator=(const saved_dispositions&) = delete;

    /// Every one of them at its default, as a program finds them at its start.
    void set_defaults() const;

private:
    std::vector<std::pair<int, struct sigaction>> saved_;
};

} // namespace orvix_testing
