#include <orvix_testing/blob.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json_input.h"
#include "json_output.h"

#include <orvix_testing/field_builder.h>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace {

using orvix::tool::add_json_members;
using orvix::tool::format_signature_method;
using orvix_testing::from_hex;

using message = orvix_testing::field_builder;

TEST(json_output, lists_a_signature_method_with_type_names_for_integers) {
    const struct {
        const char* signature;
        std::vector<std::string> methods;
    } cases[] = {
        {R"({"echo":{"id":5,"msg":3},"empty":{}})",
         {R"("echo":{"id":"Integer","msg":"String"})", R"("empty":{})"}},
        {R"({"alltypes":{"u":0,"a":1,"t":2,"s":3,"i64":4,"i32":5,"i16":6,"b":7,"d":8,"c64":9}})",
         {R"j("alltypes":{"u":"(unknown)","a":"Array","t":"Table","s":"String","i64":"(unknown)",)j"
          R"j("i32":"Integer","i16":"(unknown)","b":"Boolean","d":"(unknown)","c64":"(unknown)"})j"}},
        {R"({"intm":5,"strm":"x","tm":{"a":{"b":5},"c":99,"d":"y"},"arrm":[3]})",
         {R"("intm":"Integer")", R"("strm":"x")",
          R"j("tm":{"a":{"b":"Integer"},"c":"(unknown)","d":"y"})j", R"("arrm":["String"])"}},
        {R"({"m":{"neg":-1,"big":4294967296,"f":true,"n":null,"r":1.5,"":2}})",
         {R"j("m":{"neg":"(unknown)","big":4294967296,"f":true,"n":null,"r":1.500000,"Table"})j"}},
    };
    for (const auto& c : cases) {
        message m;
        ASSERT_TRUE(add_json_members(&m.buf, c.signature));
        std::vector<std::string> methods;
        const blob_attr* method;
        std::size_t rest;
        blobmsg_for_each_attr(method, m.buf.head, rest) {
            methods.push_back(format_signature_method(method));
        }
        EXPECT_EQ(methods, c.methods) << c.signature;
    }

    message invalid;
    invalid.add(BLOBMSG_TYPE_INT32, "m", "00 00 00 05 00");
    EXPECT_EQ(format_signature_method(static_cast<const blob_attr*>(blob_data(invalid.buf.head))),
              "");
}

} // namespace
