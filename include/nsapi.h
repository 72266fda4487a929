// The Netscape server API as far as the connector and the host layer use it:
// the published records, the dispatch table and the names that reach it.
//
// A host (a web server, or the host layer of this project) owns every record
// and defines the one symbol __nsapi30_table; a plug-in imports that symbol and
// calls every host function through the macros at the end. To compile the
// connector against a web server's own header of this name, see the build
// option NSAPI_INCLUDE_DIR: the plug-in uses nothing but published names.
//
// All functions are re-entrant. Texts given out of a pblock stay the host's.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NSAPI_PUBLIC __attribute__((visibility("default")))

// Results of a stage function.
#define REQ_PROCEED 0
#define REQ_ABORTED (-1)
#define REQ_NOACTION (-2)
#define REQ_EXIT (-3)

// Degrees of log_error.
#define LOG_WARN 0
#define LOG_MISCONFIG 1
#define LOG_SECURITY 2
#define LOG_FAILURE 3
#define LOG_CATASTROPHE 4
#define LOG_INFORM 5
#define LOG_VERBOSE 6

// The client's connection as the host knows it: opaque to a plug-in.
typedef void* SYS_NETFD;
// A critical section: opaque to a plug-in.
typedef void* CRITICAL;

typedef struct {
  char* name;
  char* value;
} pb_param;

struct pb_entry {
  pb_param* param;
  struct pb_entry* next;
};

// A parameter block: `hsize` buckets, each a chain of entries.
typedef struct {
  int hsize;
  struct pb_entry** ht;
} pblock;

// The client's input: bytes inbuf[pos] to inbuf[cursize - 1] are unread.
typedef struct {
  SYS_NETFD sd;
  int pos;
  int cursize;
  int maxsize;
  int rdtimeout;  // seconds
  unsigned char* inbuf;
  char* errmsg;
} netbuf;

// One client connection.
typedef struct Session {
  pblock* client;  // "ip", "dns", "keysize", ...
  SYS_NETFD csd;
  netbuf* inbuf;
  int csd_open;
  struct in_addr iaddr;
} Session;

// One request.
typedef struct Request {
  pblock* vars;   // what the stages leave for each other
  pblock* reqpb;  // the request line: "method", "uri", "query", "protocol", ...
  int loadhdrs;
  pblock* headers;   // the client's headers
  int senthdrs;      // non-zero once the response's headers were sent
  pblock* srvhdrs;   // the response's headers
  short status_num;  // status of the response
} Request;

// A stage function, as configuration lines name them.
typedef int Func(pblock* pb, Session* sn, Request* rq);
typedef Func* FuncPtr;

// The server's settings.
typedef struct {
  int Vport;
  char* Vserver_hostname;
  int Vsecurity_active;  // non-zero: the server speaks TLS
} conf_global_vars_s;

// Each comment says what the host gives; null or -1 is failure.
typedef struct nsapi_dispatch_s {
  // The server's name and version; stays the host's.
  char* (*f_system_version)(void);
  // Memory of the running request, taken back by the host at its end.
  void* (*f_system_malloc)(int size);
  void (*f_system_free)(void* ptr);
  char* (*f_system_strdup)(const char* text);
  // Memory that lasts until it is freed.
  void* (*f_system_malloc_perm)(int size);
  void (*f_system_free_perm)(void* ptr);
  char* (*f_system_strdup_perm)(const char* text);
  // Reads at most `size` bytes of the request's body into `buf` and sets its
  // pos and cursize: the count; 0 at the end of the body; -1 on failure. Blocks.
  int (*f_netbuf_grab)(netbuf* buf, int size);
  CRITICAL (*f_crit_init)(void);
  void (*f_crit_enter)(CRITICAL section);
  void (*f_crit_exit)(CRITICAL section);
  // Has `fn` called with `data` when the server stops or restarts.
  void (*f_daemon_atrestart)(void (*fn)(void*), void* data);
  // The client's IPv4 address: 0, or -1 when there is none.
  int (*f_net_getpeername)(SYS_NETFD socket, struct sockaddr* address, int* size);
  // Writes body bytes of the response: the count, or -1 with errno. Blocks.
  int (*f_net_write)(SYS_NETFD socket, const char* buffer, int size);
  // Releases a parameter that pblock_remove gave; null does nothing.
  int (*f_param_free)(pb_param* param);
  // The value of the first parameter of that name; stays the host's.
  char* (*f_pblock_findval)(const char* name, pblock* pb);
  // Adds a parameter with copies of both texts, even where the name exists.
  pb_param* (*f_pblock_nvinsert)(const char* name, const char* value, pblock* pb);
  pb_param* (*f_pblock_nninsert)(const char* name, int value, pblock* pb);
  // The block as name="value" pairs: new request memory. `text` may be null.
  char* (*f_pblock_pblock2str)(pblock* pb, char* text);
  // Finds a parameter, and detaches it when `remove` is 1.
  pb_param* (*f_pblock_fr)(const char* name, pblock* pb, int remove);
  // The client's host name; stays the host's.
  char* (*f_session_dns_lookup)(Session* sn, int verify);
  // Non-zero when the path of a URI could leave the folder that it names.
  int (*f_util_uri_is_evil)(const char* uri);
  conf_global_vars_s* (*f_conf_getglobals)(void);
  // Has the status line and the headers sent: REQ_PROCEED; REQ_NOACTION when no
  // body may follow; REQ_ABORTED when the client can't be reached.
  int (*f_protocol_start_response)(Session* sn, Request* rq);
  // Records the response's status; a null reason means the usual one.
  void (*f_protocol_status)(Session* sn, Request* rq, int status, const char* reason);
  // Writes a line to the error log; `sn` and `rq` may be null.
  int (*f_log_error)(int degree, const char* function, Session* sn, Request* rq,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));
  // The file path that name translation gives for a URI: request memory.
  char* (*f_request_translate_uri)(char* uri, Session* sn);
} nsapi_dispatch_t;

NSAPI_PUBLIC extern nsapi_dispatch_t* __nsapi30_table;

#ifdef __cplusplus
}
#endif

#define system_version (*__nsapi30_table->f_system_version)
#define system_malloc (*__nsapi30_table->f_system_malloc)
#define system_free (*__nsapi30_table->f_system_free)
#define system_strdup (*__nsapi30_table->f_system_strdup)
#define system_malloc_perm (*__nsapi30_table->f_system_malloc_perm)
#define system_free_perm (*__nsapi30_table->f_system_free_perm)
#define system_strdup_perm (*__nsapi30_table->f_system_strdup_perm)
#define netbuf_grab (*__nsapi30_table->f_netbuf_grab)
#define crit_init (*__nsapi30_table->f_crit_init)
#define crit_enter (*__nsapi30_table->f_crit_enter)
#define crit_exit (*__nsapi30_table->f_crit_exit)
#define daemon_atrestart (*__nsapi30_table->f_daemon_atrestart)
#define net_getpeername (*__nsapi30_table->f_net_getpeername)
#define net_write (*__nsapi30_table->f_net_write)
#define param_free (*__nsapi30_table->f_param_free)
#define pblock_findval (*__nsapi30_table->f_pblock_findval)
#define pblock_nvinsert (*__nsapi30_table->f_pblock_nvinsert)
#define pblock_nninsert (*__nsapi30_table->f_pblock_nninsert)
#define pblock_pblock2str (*__nsapi30_table->f_pblock_pblock2str)
#define pblock_fr (*__nsapi30_table->f_pblock_fr)
#define pblock_remove(name, pb) (pblock_fr(name, pb, 1))
#define session_dns_lookup (*__nsapi30_table->f_session_dns_lookup)
#define util_uri_is_evil (*__nsapi30_table->f_util_uri_is_evil)
#define conf_getglobals (*__nsapi30_table->f_conf_getglobals)
#define protocol_start_response (*__nsapi30_table->f_protocol_start_response)
#define protocol_status (*__nsapi30_table->f_protocol_status)
#define log_error (*__nsapi30_table->f_log_error)
#define request_translate_uri (*__nsapi30_table->f_request_translate_uri)
