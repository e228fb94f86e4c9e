#include "captures.h"

Demo::Handler Demo::on_call;

int Demo::dispatch(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method,
                   blob_attr* msg) {
    return on_call ? on_call(ctx, req, method, msg) : 0;
}

const blobmsg_policy Demo::policy[2] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
const ubus_method Demo::methods[2] = {UBUS_METHOD("hello", Demo::dispatch, Demo::policy),
                                      UBUS_METHOD_NOARG("status", Demo::dispatch)};
