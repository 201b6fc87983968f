#include "faultproxy.h"

#include <algorithm>
#include <deque>
#include <fstream>

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <glib.h>

static const char socket_folder[] = "/tmp/.X11-unix/X";
static const size_t max_fds = 64;

enum MessageKind
{
  CLIENT_SETUP,
  REQUEST,
  SERVER_SETUP,
  SERVER_MESSAGE
};

static size_t
padded (size_t length)
{
  return (length + 3) & ~size_t (3);
}

/* How long the message is that starts at `data`, as far as its first `size` bytes tell; 0: they don't. Numbers are in
 * the host's byte order: clients and server are on this host. */
static size_t
message_length (MessageKind kind, const uint8_t *data, size_t size)
{
  static const size_t least[] = { sizeof (xcb_setup_request_t), 4, 8, 32 };
  const auto setup = as<xcb_setup_request_t> (data);
  const auto message = as<xcb_generic_reply_t> (data);

  if (size < least[kind])
    return 0;
  if (kind == CLIENT_SETUP)
    return sizeof *setup + padded (setup->authorization_protocol_name_len)
           + padded (setup->authorization_protocol_data_len);
  if (kind == SERVER_SETUP)
    return 8 + as<xcb_setup_t> (data)->length * 4;
  if (kind == SERVER_MESSAGE)
    return message->response_type == 1 || (message->response_type & 0x7f) == XCB_GE_GENERIC
             ? 32 + message->length * size_t (4)
             : 32;
  if (const size_t units = message->sequence) /* a request has its length there, or, when it is 0, in the next word */
    return units * 4;
  return size < 8 ? 0 : std::max<size_t> (message->length, 2) * 4;
}

static void
append (Bytes &stream, const Bytes &message)
{
  stream.insert (stream.end (), message.begin (), message.end ());
}

using Descriptors = std::deque<int>;

static void
move_descriptors (Descriptors &from, size_t n, Descriptors &to)
{
  const auto end = from.begin () + std::min (n, from.size ());

  to.insert (to.end (), from.begin (), end);
  from.erase (from.begin (), end);
}

/* One end of a relayed connection. */
struct Channel
{
  Channel (int fd) : fd (fd) {}
  Channel (const Channel &) = delete;
  ~Channel ()
  {
    std::ranges::for_each (fds_in, close);
    std::ranges::for_each (fds_out, close);
    shutdown (fd, SHUT_RDWR); /* a child process may hold a copy of the descriptor */
    close (fd);
  }

  bool receive ();
  bool next (MessageKind kind, Bytes &message);
  void flush ();

  const int fd;
  Bytes in, out;
  size_t taken = 0; /* of `in` */
  Descriptors fds_in, fds_out;
  bool ended = false; /* nothing more comes in */
};

bool
Channel::receive ()
{
  uint8_t data[65536];
  alignas (cmsghdr) uint8_t control[CMSG_SPACE (max_fds * sizeof (int))];
  iovec place = { data, sizeof data };
  msghdr header = { nullptr, 0, &place, 1, control, sizeof control, 0 };
  const ssize_t length = ended ? 0 : recvmsg (fd, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);

  if (length <= 0)
    {
      ended = length == 0 || (errno != EAGAIN && errno != EINTR);
      return false;
    }
  in.insert (in.end (), data, data + length);
  for (cmsghdr *item = CMSG_FIRSTHDR (&header); item; item = CMSG_NXTHDR (&header, item))
    if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_RIGHTS)
      fds_in.insert (fds_in.end (), as<int> (CMSG_DATA (item)),
                     as<int> (CMSG_DATA (item)) + (item->cmsg_len - CMSG_LEN (0)) / sizeof (int));
  return true;
}

/* Takes a message out when it is whole. */
bool
Channel::next (MessageKind kind, Bytes &message)
{
  const size_t size = in.size () - taken;
  const size_t length = message_length (kind, in.data () + taken, size);

  if (length == 0 || length > size)
    {
      in.erase (in.begin (), in.begin () + taken);
      taken = 0;
      return false;
    }
  message.assign (in.begin () + taken, in.begin () + taken + length);
  taken += length;
  return true;
}

void
Channel::flush ()
{
  while (!out.empty ())
    {
      /* The receiver takes descriptors in order, and needs each no later than the message it belongs to. */
      const size_t n_fds = std::min (fds_out.size (), max_fds);
      alignas (cmsghdr) uint8_t control[CMSG_SPACE (max_fds * sizeof (int))] = {};
      iovec place = { out.data (), out.size () };
      msghdr header = { nullptr, 0, &place, 1, control, n_fds ? CMSG_SPACE (n_fds * sizeof (int)) : 0, 0 };
      *as<cmsghdr> (control) = { CMSG_LEN (n_fds * sizeof (int)), SOL_SOCKET, SCM_RIGHTS };
      std::copy_n (fds_out.begin (), n_fds, as<int> (CMSG_DATA (as<cmsghdr> (control))));

      const ssize_t length = sendmsg (fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (length < 0 && (errno == EAGAIN || errno == EINTR))
        return;
      /* Nobody listens any more? What they said before can still be read. */
      out.erase (out.begin (), length < 0 ? out.end () : out.begin () + length);
      std::for_each_n (fds_out.begin (), n_fds, close);
      fds_out.erase (fds_out.begin (), fds_out.begin () + n_fds);
    }
}

struct FaultProxy::Request
{
  std::string name;
  uint64_t sequence; /* 0: the set-up */
  bool replied = false;
  std::string queried = {}; /* QueryExtension: the extension */

  /* The server got another request in its place, and the client gets this for the reply to that; nothing: an end. */
  bool replaced = false;
  Bytes substitute = {};
  std::vector<std::shared_ptr<FaultRule>> reply_rules = {};
};

struct FaultProxy::Client
{
  Client (int app_fd, int server_fd) : app (app_fd), server (server_fd) {}

  Channel app, server;
  bool sent_setup = false, connected = false;
  bool deaf = false;                   /* the connection ends with the last request taken */
  uint64_t sent = 0;                   /* sequence number of the client's last request */
  uint64_t seen = 0;                   /* ... of the server's last message */
  std::deque<size_t> outstanding = {}; /* indices of the requests that the server's messages can still be about */
};

/* "EXTENSION:minor" (core: "X11:major") to the request's name, from the list that comes with the X servers. */
static const std::map<std::string, std::string> &
registry ()
{
  static const auto names = [] {
    const std::map<std::string, std::string> prefixes
      = { { "X11", "" },        { "BIG-REQUESTS", "BigReq" }, { "DAMAGE", "Damage" },   { "MIT-SHM", "Shm" },
          { "RANDR", "RR" },    { "SHAPE", "Shape" },         { "X-Resource", "XRes" }, { "XFIXES", "XFixes" },
          { "XTEST", "XTest" }, { "XInputExtension", "XI" },  { "XKEYBOARD", "Xkb" } };
    std::map<std::string, std::string> names = { { "Generic Event Extension:0", "GEQueryVersion" } };
    std::ifstream file ("/usr/lib/xorg/protocol.txt");

    for (std::string line; std::getline (file, line);) /* "R016 RANDR:CreateMode" */
      if (const size_t colon = line.find (':'); line[0] == 'R' && colon != std::string::npos)
        {
          const std::string extension = line.substr (5, colon - 5), object = line.substr (colon + 1);
          const auto found = prefixes.find (extension);
          const std::string prefix = found != prefixes.end () ? found->second : extension + ":";
          names[extension + ":" + std::to_string (std::stoul (line.substr (1, 3)))]
            = object.starts_with (prefix) ? object : prefix + object;
        }
    return names;
  }();
  return names;
}

std::string
FaultProxy::request_name (const Bytes &request) const
{
  const std::string key = request[0] < 128 ? "X11:" + std::to_string (request[0])
                                           : extension_names[request[0]] + ":" + std::to_string (request[1]);
  const auto found = registry ().find (key);

  return found != registry ().end () ? found->second : key;
}

static sockaddr_un
socket_address (const std::string &path, bool is_abstract = false)
{
  sockaddr_un address = {};

  address.sun_family = AF_UNIX;
  path.copy (address.sun_path + is_abstract, sizeof address.sun_path - 2);
  return address;
}

/* -1: somebody has it. */
static int
listen_at (const std::string &path, bool is_abstract)
{
  const auto address = socket_address (path, is_abstract);
  const socklen_t length = offsetof (sockaddr_un, sun_path) + is_abstract + path.size ();
  const int fd = socket (AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);

  if (bind (fd, reinterpret_cast<const sockaddr *> (&address), length) == 0 && listen (fd, SOMAXCONN) == 0)
    return fd;
  close (fd);
  return -1;
}

FaultProxy::FaultProxy (const char *server_display)
    : server_path (socket_folder + std::string (server_display + 1)), wake_up (eventfd (0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  /* A server that looks for a free display goes by the abstract socket, one that is told its display by the lock file
   * too. Whoever has both free may replace a socket in the file system: its owner has died. */
  for (unsigned number = 64; name.empty (); number++)
    {
      const std::string digits = std::to_string (number);
      socket_path = socket_folder + digits;
      if (number == 10000)
        g_error ("No display is free: %s", g_strerror (errno));
      if (access (("/tmp/.X" + digits + "-lock").c_str (), F_OK) == 0
          || (listeners[0] = listen_at (socket_path, true)) < 0)
        continue;
      unlink (socket_path.c_str ());
      listeners[1] = listen_at (socket_path, false);
      name = ":" + digits;
    }
  thread = std::thread (&FaultProxy::run, this);
}

FaultProxy::~FaultProxy ()
{
  {
    const auto lock = enter ();
    stopping = true;
  }
  thread.join ();
  unlink (socket_path.c_str ());
  std::ranges::for_each (listeners, close);
  close (wake_up);
}

/* Every call begins so. The thread is woken up because the connections it waits for may be others afterwards. */
std::unique_lock<std::mutex>
FaultProxy::enter ()
{
  std::unique_lock lock (mutex);

  eventfd_write (wake_up, 1);
  pump ();
  return lock;
}

void
FaultProxy::run ()
{
  std::unique_lock lock (mutex);

  while (!stopping)
    {
      std::vector<pollfd> fds = { { wake_up, POLLIN, 0 }, { listeners[0], POLLIN, 0 }, { listeners[1], POLLIN, 0 } };
      for (const auto &client : connections)
        for (const auto channel : { &client.app, &client.server })
          {
            const bool input = !channel->ended && !(client.deaf && channel == &client.app);
            const short events = (input ? POLLIN : 0) | (channel->out.empty () ? 0 : POLLOUT);
            if (events) /* else a hang-up, which is always reported, would keep the loop busy */
              fds.push_back ({ channel->fd, events, 0 });
          }
      lock.unlock ();
      poll (fds.data (), fds.size (), -1);
      lock.lock ();

      eventfd_t calls;
      eventfd_read (wake_up, &calls);
      pump ();
    }
}

/* Takes all that there is, from both sides of each connection. */
void
FaultProxy::pump ()
{
  bool progress;

  do
    {
      progress = accept_client (listeners[0]);
      progress |= accept_client (listeners[1]);
      for (auto &client : connections)
        progress |= relay (client);
      connections.remove_if ([] (const Client &client) { return client.server.ended && client.app.out.empty (); });
    }
  while (progress);
}

bool
FaultProxy::accept_client (int listener)
{
  const int app = accept4 (listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);

  if (app < 0)
    return false;
  const auto address = socket_address (server_path);
  const int server = socket (AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto &client = connections.emplace_back (app, server);
  client.server.ended = connect (server, reinterpret_cast<const sockaddr *> (&address), sizeof address) != 0;
  return true;
}

bool
FaultProxy::relay (Client &client)
{
  bool progress = !client.deaf && client.app.receive ();
  Bytes message;

  progress |= client.server.receive ();
  while (!client.deaf && client.app.next (client.sent_setup ? REQUEST : CLIENT_SETUP, message))
    take_request (client, message);
  move_descriptors (client.server.fds_in, SIZE_MAX, client.app.fds_out);
  while (!client.server.ended && client.server.next (client.connected ? SERVER_MESSAGE : SERVER_SETUP, message))
    take_message (client, message);
  client.server.flush ();
  client.app.flush ();

  /* The server hears of a client's end after all of the client's requests, as it would without a proxy. */
  if (client.app.ended && client.server.out.empty ())
    shutdown (client.server.fd, SHUT_WR);
  return progress;
}

/* Gives a reply, or the server's part of the set-up, the length that it says it has. */
static void
fix_length (Bytes &reply, bool is_setup)
{
  reply.resize (padded (std::max<size_t> (reply.size (), is_setup ? 8 : 32)));
  if (is_setup)
    as<xcb_setup_t> (reply.data ())->length = (reply.size () - 8) / 4;
  else
    as<xcb_generic_reply_t> (reply.data ())->length = (reply.size () - 32) / 4;
}

/* What the client gets for a request that a rule keeps from the server; nothing: the connection ends. */
static Bytes
substitute_for (const Bytes &request, const FaultRule &rule, uint64_t sequence)
{
  Bytes message (32);

  if (rule.cut)
    return {};
  if (sequence == 0)
    return { 0, 7, X_PROTOCOL, 0, X_PROTOCOL_REVISION, 0, 2, 0, 'R', 'e', 'f', 'u', 's', 'e', 'd', 0 };
  if (rule.answer)
    {
      message = rule.answer (request);
      fix_length (message, false);
      message[0] = 1;
    }
  const auto error = as<xcb_generic_error_t> (message.data ());
  error->sequence = sequence;
  if (rule.error)
    {
      error->error_code = rule.error;
      error->major_code = request[0];
      error->minor_code = request[0] < 128 ? 0 : request[1];
    }
  return message;
}

/* Whether the rule holds for the request, which counts as a match. */
static bool
applies (FaultRule &rule, const std::string &name, const Bytes &request)
{
  if ((rule.request && name != rule.request) || (rule.when && !rule.when (request)))
    return false;
  rule.matches++;
  return rule.nth == 0 || rule.nth == rule.matches;
}

void
FaultProxy::take_request (Client &client, const Bytes &bytes)
{
  const bool is_setup = !client.sent_setup;
  Bytes plain = bytes;
  if (!is_setup && *as<uint16_t> (bytes.data () + 2) == 0)
    plain.erase (plain.begin () + 4, plain.begin () + 8);
  client.sent_setup = true;
  client.outstanding.push_back (requests.size ());
  requests.push_back ({ is_setup ? "Setup" : request_name (plain), is_setup ? 0 : ++client.sent });

  auto &request = requests.back ();
  if (request.name == "QueryExtension")
    request.queried.assign (plain.begin () + 8, plain.begin () + 8 + *as<uint16_t> (plain.data () + 4));
  for (const auto &[id, rule] : rules)
    if (applies (*rule, request.name, plain) && !request.replaced)
      {
        rule->hits++;
        request.replaced = rule->error || rule->cut || rule->answer;
        if (request.replaced)
          request.substitute = substitute_for (plain, *rule, request.sequence);
        else
          request.reply_rules.push_back (rule);
      }

  /* Of the requests that are known here, one brings a descriptor along. */
  const bool is_known = request.name.find (':') == std::string::npos;
  Descriptors fds;
  move_descriptors (client.app.fds_in, is_known ? request.name == "ShmAttachFd" : SIZE_MAX, fds);
  client.deaf = request.replaced && (is_setup || request.substitute.empty ());
  if (!request.replaced)
    {
      append (client.server.out, bytes);
      move_descriptors (fds, SIZE_MAX, client.server.fds_out);
    }
  else if (is_setup)
    {
      append (client.app.out, request.substitute);
      client.server.ended = true;
    }
  else /* it changes nothing, and its reply shows the substitute's place in the stream: after all that came before */
    append (client.server.out, { XCB_GET_INPUT_FOCUS, 0, 1, 0 });
  std::ranges::for_each (fds, close);
}

void
FaultProxy::take_message (Client &client, Bytes &message)
{
  auto &outstanding = client.outstanding;

  /* The wire has the low 16 bits of the sequence number. */
  if (client.connected && (message[0] & 0x7f) != XCB_KEYMAP_NOTIFY)
    client.seen += uint16_t (as<xcb_generic_reply_t> (message.data ())->sequence - client.seen);
  while (!outstanding.empty () && requests[outstanding.front ()].sequence < client.seen)
    outstanding.pop_front ();

  if (!outstanding.empty () && requests[outstanding.front ()].sequence == client.seen
      && (message[0] == 1 || !client.connected))
    change_reply (requests[outstanding.front ()], message);
  client.connected = true;
  client.server.ended = message.empty ();
  append (client.app.out, message);
}

/* Makes of the server's reply what the client gets. */
void
FaultProxy::change_reply (Request &request, Bytes &message)
{
  if (request.replaced)
    {
      message = request.substitute;
      request.replied = !message.empty () && message[0] == 1;
      return;
    }

  request.replied = true;
  if (!request.queried.empty ())
    extension_names[as<xcb_query_extension_reply_t> (message.data ())->major_opcode] = request.queried;
  for (const auto &rule : request.reply_rules)
    {
      for (const auto &field : rule->patch)
        if (field.offset + field.size <= message.size ())
          memcpy (message.data () + field.offset, &field.value, field.size);
      if (rule->edit)
        rule->edit (message);
      fix_length (message, request.sequence == 0);
    }
}

FaultRule
hiding (const std::string &extension)
{
  const auto asks_for_it = [=] (const Bytes &request) {
    return extension == std::string (request.begin () + 8, request.begin () + 8 + *as<uint16_t> (&request[4]));
  };
  return { .request = "QueryExtension", .when = asks_for_it, .patch = { { 8, 4, 0 } } };
}

unsigned
FaultProxy::add (FaultRule rule)
{
  const auto is_asked_for = [&] (const auto &entry) { return entry.second == rule.request; };
  if (rule.request && strcmp (rule.request, "Setup") != 0 && !strchr (rule.request, ':')
      && std::ranges::none_of (registry (), is_asked_for))
    g_error ("There is no request %s", rule.request);

  const auto lock = enter ();
  rules[++n_rules] = std::make_shared<FaultRule> (std::move (rule));
  return n_rules;
}

void
FaultProxy::add (const char *faults, const FaultKinds &kinds)
{
  g_auto (GStrv) list = g_strsplit (faults, "; ", -1);

  for (char **fault = list; *fault; fault++)
    {
      g_auto (GStrv) words = g_strsplit (*fault, " ", 3);
      const bool has_number = words[1], has_kind = has_number && words[2];
      FaultRule rule = has_kind ? kinds.at (words[2]) : FaultRule{ .error = XCB_VALUE };
      rule.request = g_intern_string (words[0]);
      rule.nth = has_number ? atoi (words[1]) : 0;
      add (std::move (rule));
    }
}

unsigned
FaultProxy::hits (unsigned rule)
{
  const auto lock = enter ();
  return rules.at (rule)->hits;
}

void
FaultProxy::remove (unsigned rule)
{
  const auto lock = enter ();
  rules.erase (rule);
}

void
FaultProxy::clear ()
{
  const auto lock = enter ();
  rules.clear ();
}

FaultProxy::Trace
FaultProxy::record (const std::function<void ()> &run)
{
  const size_t first = (enter (), requests.size ());
  run ();
  const auto lock = enter ();
  Trace trace;

  for (size_t i = first; i < requests.size (); i++)
    {
      trace.push_back (requests[i].name);
      trace.round_trips += requests[i].replied;
    }
  return trace;
}

void
FaultProxy::insert (const void *event, size_t size)
{
  const auto lock = enter ();
  auto &client = connections.back ();
  Bytes message (std::max<size_t> (size, 32));

  memcpy (message.data (), event, size);
  if ((message[0] & 0x7f) != XCB_KEYMAP_NOTIFY)
    as<xcb_generic_event_t> (message.data ())->sequence = client.seen;
  append (client.app.out, message);
  client.app.flush ();
}
