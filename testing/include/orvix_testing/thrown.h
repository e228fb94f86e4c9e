// What a piece of code throws, for tests of exact exception texts.
#pragma once

#include <exception>
#include <string>

namespace orvix_testing {

/// The text of the `Exception` that `work` throws, or "nothing thrown". An exception of
/// another type passes through and fails the test that called this.
template <typename Exception = std::exception, typename Work>
std::string what_thrown(Work&& work) {
    try {
        work();
    } catch (const Exception& e) {
        return e.what();
    }
    return "nothing thrown";
}

} // namespace orvix_testing
