/* orvix-ubusd: shared types and the interfaces between the daemon's parts. */
#ifndef ORVIX_UBUSD_H
#define ORVIX_UBUSD_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <ubusmsg.h>

#include "ubus_config.h"

/* id.c: random 32-bit identifiers, unique within one space, never below 1024. */
struct ubus_id {
    struct avl_node avl;
    uint32_t id;
};

int id_init(void);
void id_space_init(struct avl_tree* space);
/* `usable` may veto a drawn value (NULL accepts any). Returns false if no id was found. */
bool id_alloc(struct avl_tree* space, struct ubus_id* id, bool (*usable)(uint32_t));
void id_free(struct avl_tree* space, struct ubus_id* id);
struct ubus_id* id_find(const struct avl_tree* space, uint32_t id);

/* A message as received: header fields in host order, the blob exactly as sent. */
struct inmsg {
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
    struct blob_attr* body;
    size_t body_len; /* bytes held at body: the blob's raw length */
    int fd;          /* passed with the message, -1 if none; owned by whoever clears it */
};

struct lookup;

/* Supplementary groups read for a client, as many as access rules look at. */
#define ACL_MAX_GROUPS 64

struct client {
    struct ubus_id id;
    struct uloop_fd sock;
    uid_t uid;
    gid_t gid;
    bool privileged;              /* root, or the daemon's own user: allowed everything */
    gid_t groups[ACL_MAX_GROUPS]; /* supplementary, for group rules */
    int n_groups;
    char* user;
    char* group;
    struct list_head objects; /* struct object, in creation order */

    /* Reassembly of the message being received. */
    uint8_t in_head[sizeof(struct ubus_msghdr) + sizeof(struct blob_attr)];
    size_t in_have; /* bytes of the current message received so far */
    struct blob_attr* in_body;
    size_t in_cap;
    int in_fd;

    /* Messages waiting for the socket to become writable. */
    struct list_head outq;
    size_t outq_bytes;

    struct lookup* lookup;          /* a listing in progress; input is paused meanwhile */
    struct list_head monitor_entry; /* on the monitor list, or empty */
    uint16_t monitor_seq;           /* of the last report sent to it */
    bool dead;
    struct list_head dead_entry;
};

/* client.c */
void clients_init(void);
void listener_start(int fd);
/* Takes a connected socket on as a client; `fd` is consumed. */
void client_new(int fd);
struct client* client_find(uint32_t id);
/* Takes the client off the bus; it is freed once the current callback has returned. */
void client_disconnect(struct client* cl);
/* Re-arms the socket for the events the client's state calls for. */
void client_update_events(struct client* cl);

/* outq.c: `fd` is consumed (passed on or closed). Monitors hear of every message sent,
 * whether or not it then fits the client's queue. */
void client_send(struct client* cl, uint8_t type, uint16_t seq, uint32_t peer,
                 const struct blob_attr* body, int fd);
/* For the monitors' own reports, which are not reported in turn. */
void client_send_unreported(struct client* cl, uint8_t type, uint16_t seq, uint32_t peer,
                            const struct blob_attr* body, int fd);
bool client_queue_empty(const struct client* cl);
/* Writes what the socket takes; false when the client had to be disconnected. */
bool client_flush(struct client* cl);
void client_queue_clear(struct client* cl);

/* msg.c */
extern struct blob_buf msg_buf; /* shared scratch buffer for building replies */
void msg_parse(const struct inmsg* msg, struct blob_attr** tb);
void msg_start(void);
void msg_send(struct client* cl, uint8_t type, const struct inmsg* req);
void msg_send_status(struct client* cl, const struct inmsg* req, int status);

/* proto.c */
void proto_dispatch(struct client* cl, struct inmsg* msg);

/* object.c */
struct object_type {
    struct ubus_id id;
    unsigned int refs;
    unsigned int n_methods;
    struct blob_attr* signature; /* a SIGNATURE attribute, rebuilt from the checked entries */
};

struct object {
    struct ubus_id id;
    struct avl_node path_node; /* in the path index, if the object has a path */
    char* path;                /* NULL for anonymous objects */
    struct object_type* type;  /* NULL: never listed, still invocable by id */
    struct client* owner;
    struct list_head owner_entry;
    struct list_head event_patterns; /* struct event_pattern registered for it */
    uint32_t event_gen;              /* the last event delivered to it */
    struct list_head subscribers;    /* struct subscription as target, newest first */
    struct list_head targets;        /* struct subscription as subscriber, newest first */
    uint32_t seq;                    /* of the NOTIFY and UNSUBSCRIBE the daemon sends about it */
};

void objects_init(void);
struct object* object_find(uint32_t id);
struct object* object_find_path(const char* path);
/* Creates an object as ADD_OBJECT asks; returns a status, *out set on success. */
int object_create(struct client* owner, struct blob_attr** tb, struct object** out);
/* Tells subscribers and listeners the object is gone, then frees it. */
void object_destroy(struct object* obj);
/* The first object whose path sorts at or after `path`, then the next one; NULL at the end. */
struct object* object_first_from(const char* path);
struct object* object_next(struct object* obj);
bool object_visible_to(const struct object* obj, const struct client* cl);

/* lookup.c */
void lookup_start(struct client* cl, const struct inmsg* msg, struct blob_attr** tb);
void lookup_continue(struct client* cl);
void lookup_cancel(struct client* cl);

/* events.c */
int events_register(struct client* cl, struct blob_attr* data);
int events_send(struct client* cl, struct blob_attr* data);
void events_object_added(struct object* obj);
void events_object_removed(struct object* obj);
void events_acl_sequence(uint32_t seq);

/* subscribe.c */
void subscribe_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb);
void unsubscribe_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb);
void notify_handle(struct client* cl, const struct inmsg* msg, struct blob_attr** tb);
/* Ends every subscription the object is part of, telling the clients concerned. */
void subscriptions_object_removed(struct object* obj);

/* monitor.c */
int monitor_invoke(struct client* cl, const char* method);
void monitor_remove(struct client* cl);
/* A message `cl` sent to the daemon (send false) or is being sent (send true). */
void monitor_report(struct client* cl, bool send, uint8_t type, uint16_t seq, uint32_t peer,
                    const struct blob_attr* body);

/* acl.c: the rights a rule may grant, each a list of patterns. */
enum acl_right { ACL_PUBLISH, ACL_SUBSCRIBE, ACL_LISTEN, ACL_SEND, __ACL_RIGHT_MAX };

/* Reads the rules from `dir`'s *.json files; a directory without any keeps the old ones. */
void acl_load(const char* dir);
/* For ACL_LISTEN, `s` is the pattern as registered. */
bool acl_allows(const struct client* cl, enum acl_right right, const char* s);
bool acl_allows_call(const struct client* cl, const char* path, const char* method);
/* The "seq" and "acl" fields of the ACL query's answer to `cl`. */
void acl_put_query(struct blob_buf* b, const struct client* cl);
/* From /proc: the process's supplementary groups, at most `max`; 0 if unreadable. */
int acl_read_groups(pid_t pid, gid_t* groups, int max);

/* json.c: a JSON object as blobmsg fields at the top level of `out` (initialised here).
 * False if the text is not one. */
bool json_to_blobmsg(struct blob_buf* out, const char* text, size_t len);

/* sysobj.c */
void sysobj_invoke(struct client* cl, const struct inmsg* msg, uint32_t objid, const char* method,
                   struct blob_attr* data);

#endif
