// Decoding of an array field whose payload is the input.
#include "message.h"

#include <orvix/blob/utils.h>

#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!orvix_fuzz::message::fits(size)) {
        return -1;
    }
    orvix_fuzz::message msg(data, size);
    try {
        orvix::blob::utils::to_array(msg.head());
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {
    }
    return 0;
}
