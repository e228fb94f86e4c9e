#pragma once

#include <map>
#include <string>

namespace orvix_bench {

/// Every measured value of the run by key, read by the ratio table at the end.
std::map<std::string, double>& metrics();

/// The benchmarks of message encoding and decoding.
void register_blob_benchmarks();

/// The benchmarks over the bus. False when the bus could not be set up.
bool register_bus_benchmarks(const char* ubusd, const char* service, const char* caller,
                             const char* relay);
void finish_bus_benchmarks();

} // namespace orvix_bench
