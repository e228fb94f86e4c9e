#include <orvix/blob/attr.h>
#include <orvix/version.h>

#include <iostream>
#include <string>

// Exits with 0 when the installed headers and library agree with the installed package.
int main() {
    const orvix::blob::attr answer(-42);
    const std::string version = orvix::version::get_string();
    std::cout << "orvix " << version << ", attr " << answer.get<int>() << '\n';
    return version == ORVIX_EXPECTED_VERSION && answer.get<unsigned int>() == 4294967254u ? 0 : 1;
}
