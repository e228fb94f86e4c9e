/* Build constants of the bus, shared by the client library and the daemon. */
#ifndef HOSTBUS_UBUS_CONFIG_H
#define HOSTBUS_UBUS_CONFIG_H

#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#define UBUS_MAX_MSGLEN 1048576

#endif
