#pragma once

#include <array>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <stddef.h>
#include <stdint.h>

#include <xcb/xcb.h>

#include "xserver.h"

using Bytes = std::vector<uint8_t>;

/* What lies at a place of a message, seen as one of xcb's structures or as a number. */
template <typename T>
T *
as (const uint8_t *data)
{
  return const_cast<T *> (reinterpret_cast<const T *> (data));
}

/* A value at a place in a reply or the set-up; X_FIELD takes the place from xcb's own structure. */
struct XField
{
  size_t offset, size;
  uint32_t value;
};
#define X_FIELD(structure, member, value)                                                                              \
  (XField{ offsetof (structure, member), sizeof (structure::member), uint32_t (value) })

/* Which requests meet with what. Requests go by their names: those of the core protocol as they are ("GetGeometry"),
 * those of extensions with the usual prefix ("RRCreateMode", "ShmAttach", "DamageCreate", "XFixesFetchRegion",
 * "XkbGetMap", "XTestFakeInput", "XIQueryVersion", "BigReqEnable"), else "EXTENSION:Name" or "EXTENSION:minor".
 * "Setup" is the first message of a connection. The functions run under the proxy's lock: they must not call it. */
struct FaultRule
{
  const char *request = nullptr; /* NULL: any */
  unsigned nth = 0;              /* of the requests that match otherwise, from 1; 0: each of them */
  std::function<bool (const Bytes &request)> when = {}; /* a BIG-REQUESTS length has been taken out */

  /* One of these keeps the request from the server. The first rule that has one decides. */
  uint8_t error = 0;                                       /* X error code; "Setup": the connection is refused */
  bool cut = false;                                        /* no answer, and the connection breaks */
  std::function<Bytes (const Bytes &request)> answer = {}; /* a reply; type, sequence and length are filled in */

  /* These change what the server replies, one rule after the other. The length is brought up to date. */
  std::vector<XField> patch = {};
  std::function<void (Bytes &reply)> edit = {};

  unsigned matches = 0, hits = 0; /* the proxy's own */
};

/* Makes the server seem to be without an extension. */
FaultRule hiding (const std::string &extension);

/* What is the same with several requests: a rule without these, by a name. */
using FaultKinds = std::map<std::string, FaultRule>;

/* A man in the middle between X clients and a real server, on a display of its own and in a thread of its own. All
 * calls may come from any thread. What a client has flushed before a call is made has been taken by then. */
class FaultProxy
{
public:
  explicit FaultProxy (const char *server_display);
  explicit FaultProxy (const XServer &server) : FaultProxy (server.display ()) {}
  ~FaultProxy ();
  FaultProxy (const FaultProxy &) = delete;

  const char *
  display () const
  {
    return name.c_str ();
  }

  /* The rule holds from now on. The result is for `hits`, the number of requests it was applied to, and `remove`. */
  unsigned add (FaultRule rule);

  /* Rules in words. "RRSetCrtcConfig 17; GetGeometry; RRGetOutputInfo 1 cut short": the 17th such request fails (with
   * a Value error), each GetGeometry does, and the first RRGetOutputInfo meets with the kind of that name. */
  void add (const char *faults, const FaultKinds &kinds = {});

  unsigned hits (unsigned rule);
  void remove (unsigned rule);
  void clear ();

  /* The names of the requests that `run` makes, in order, and how many of them got a reply. */
  struct Trace : std::vector<std::string>
  {
    unsigned round_trips = 0;
  };
  Trace record (const std::function<void ()> &run);

  /* Slips an event to the client that came last, after all that the server has sent so far, with the sequence number of
   * the last of that. (For an X error in the client's queue let a rule fail a request that has no reply.) */
  void insert (const void *event, size_t size = 32);

private:
  struct Client;
  struct Request;

  void run ();
  std::unique_lock<std::mutex> enter ();
  void pump ();
  bool accept_client (int listener);
  bool relay (Client &client);
  void take_request (Client &client, const Bytes &request);
  void take_message (Client &client, Bytes &message);
  void change_reply (Request &request, Bytes &message);
  std::string request_name (const Bytes &request) const;

  std::string name, socket_path;
  const std::string server_path;
  std::array<int, 2> listeners; /* the abstract socket and the one in the file system */
  int wake_up;
  bool stopping = false;
  unsigned n_rules = 0;
  std::list<Client> connections;
  std::map<unsigned, std::shared_ptr<FaultRule>> rules; /* in the order they came */
  std::vector<Request> requests;                        /* of all clients, ever */
  std::array<std::string, 256> extension_names;         /* by major opcode */
  std::mutex mutex;                                     /* for all of these */
  std::thread thread;
};
