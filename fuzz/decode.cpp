// Loose decoding of a message whose body is the input: as a table or as an array, whichever
// ORVIX_FUZZ_DECODER names.
#include <orvix_testing/blob.h>

#include <orvix/blob/utils.h>

#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!orvix_testing::message_blob::fits(size)) {
        return -1;
    }
    orvix_testing::message_blob msg(data, size);
    try {
        orvix::blob::utils::ORVIX_FUZZ_DECODER(msg.head());
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {
    }
    return 0;
}
