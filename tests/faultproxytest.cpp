#include <gtest/gtest.h>

#include <algorithm>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <xcb/randr.h>
#include <xcb/shm.h>

#include "faultproxy.h"
#include "xserver.h"

using Names = std::vector<std::string>;

class FaultProxyTest : public testing::Test
{
protected:
  XServer server{ XServer::XVFB };
  FaultProxy proxy{ server };
  FaultProxy outer{ proxy.display () }; /* what `proxy` slips in comes to this one as from a server */
  XcbClient direct{ server.display () };
  XcbClient client{ outer.display () };
};

TEST_F (FaultProxyTest, RelaysPixelsAndDescriptorsAsTheyAre)
{
  const xcb_gcontext_t gc = xcb_generate_id (client.conn);
  const xcb_shm_seg_t ours = xcb_generate_id (client.conn), theirs = xcb_generate_id (client.conn);
  std::vector<uint8_t> noise (1280 * 100 * 4); /* sent with a BIG-REQUESTS length */
  std::generate (noise.begin (), noise.end (), g_random_int);
  xcb_create_gc (client.conn, gc, client.root, 0, nullptr);
  xcb_put_image (client.conn, 2, client.root, gc, 1280, 100, 0, 0, 0, 24, noise.size (), noise.data ());
  const auto relayed = X_REPLY (client.conn, get_image, 2, client.root, 3, 5, 1201, 901, ~0u);
  const auto expected = X_REPLY (direct.conn, get_image, 2, client.root, 3, 5, 1201, 901, ~0u);
  ASSERT_TRUE (relayed && expected);
  ASSERT_EQ (relayed->length, 1201u * 901u);
  EXPECT_EQ (memcmp (relayed.get () + 1, expected.get () + 1, expected->length * 4), 0);
  EXPECT_EQ (memcmp (relayed.get () + 1, &noise[(5 * 1280 + 3) * 4], 3), 0);

  /* One descriptor that must not get to the server, one that must, and one that comes back. */
  const unsigned refusal = proxy.add ({ .request = "ShmAttachFd", .nth = 1, .error = XCB_ACCESS });
  for (const size_t size : { 100, 4096 })
    {
      const int memory = memfd_create ("segment", MFD_CLOEXEC);
      ASSERT_EQ (ftruncate (memory, size), 0);
      xcb_shm_attach_fd (client.conn, ours, memory, 0);
    }
  EXPECT_TRUE (X_REPLY (client.conn, shm_get_image, client.root, 0, 0, 32, 32, ~0u, 2, ours, 0));
  EXPECT_EQ (proxy.hits (refusal), 1u);
  const auto created = X_REPLY (client.conn, shm_create_segment, theirs, 8192, 0);
  ASSERT_TRUE (created);
  const int *fds = xcb_shm_create_segment_reply_fds (client.conn, created.get ());
  struct stat status;
  EXPECT_EQ (fstat (fds[0], &status), 0);
  EXPECT_EQ (status.st_size, 8192);
  close (fds[0]);
}

TEST_F (FaultProxyTest, KeepsItsPlaceOver70000Requests)
{
  Names expected;
  const FaultProxy::Trace trace = proxy.record ([&] {
    for (int i = 0; i < 75000; i++)
      {
        const bool synced = i % 5000 == 4999;
        xcb_no_operation (client.conn);
        expected.push_back ("NoOperation");
        if (synced)
          expected.push_back ("GetInputFocus");
        ASSERT_TRUE (!synced || client.round_trip ());
      }
  });
  EXPECT_EQ (trace, expected);
  EXPECT_EQ (trace.round_trips, 15u);

  /* Failures with a reply to come and without, among requests that are answered, all on their way at once. */
  proxy.add ({ .request = "UnmapWindow", .error = XCB_WINDOW });
  proxy.add ({ .request = "GetGeometry", .nth = 2, .error = XCB_ALLOC });
  const auto unmap = xcb_unmap_window_checked (client.conn, client.root);
  const auto first = xcb_get_geometry (client.conn, client.root), second = xcb_get_geometry (client.conn, client.root);
  EXPECT_TRUE (X_REPLY (client.conn, get_geometry, client.root));
  xcb_generic_error_t *error = nullptr;
  EXPECT_FALSE (xcb_get_geometry_reply (client.conn, second, &error));
  EXPECT_TRUE (XOwned<xcb_get_geometry_reply_t> (xcb_get_geometry_reply (client.conn, first, nullptr)));
  const XOwned<xcb_generic_error_t> alloc_error (error), window_error (xcb_request_check (client.conn, unmap));
  ASSERT_TRUE (alloc_error && window_error);
  EXPECT_EQ (alloc_error->full_sequence, second.sequence);
  EXPECT_EQ (alloc_error->error_code, XCB_ALLOC);
  EXPECT_EQ (alloc_error->major_code, XCB_GET_GEOMETRY);
  EXPECT_EQ (window_error->full_sequence, unmap.sequence);
}

TEST_F (FaultProxyTest, SlipsEventsIn)
{
  const uint8_t keymap[32] = { XCB_KEYMAP_NOTIFY, 1, 2, 3 }, configured[32] = { 0x80 | XCB_CONFIGURE_NOTIFY };
  const uint32_t generic[] = { XCB_GE_GENERIC, 2, 5, 6, 7, 8, 9, 10, 11, 12 };
  ASSERT_TRUE (client.round_trip ());
  proxy.insert (keymap, sizeof keymap);
  proxy.insert (generic, sizeof generic);
  proxy.insert (configured, sizeof configured);
  outer.add ({ .nth = 1, .error = XCB_WINDOW });
  xcb_unmap_window (client.conn, client.root);
  ASSERT_TRUE (client.round_trip ());
  for (const int type : { XCB_KEYMAP_NOTIFY, XCB_GE_GENERIC, 0x80 | XCB_CONFIGURE_NOTIFY, 0 })
    {
      const XOwned<xcb_generic_event_t> event (xcb_poll_for_queued_event (client.conn));
      EXPECT_EQ (event ? event->response_type : -1, type);
    }
}
