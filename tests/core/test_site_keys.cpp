// Site keys on the camera: which files make it keyed, what a trailer or a
// detached signature must hold, and what is left behind when one fails.
#include <gtest/gtest.h>

#include <algorithm>

#include "core/site_keys.h"
#include "fakes/fake_platform.h"

namespace {

std::string sig_text(const wire::key_pair& k, const std::string& data) {
  wire::prehash h;
  h.update(data.data(), data.size());
  return wire::format_signature(wire::sign_prehashed(k.sec, h.final(), "file:x"));
}

TEST(SiteKeys, TrailerIsOnlyCutOnACameraWithoutKeys) {
  FakeCamera cam;
  wire::key_pair k = wire::generate_key_pair();
  EXPECT_FALSE(camera_is_keyed());
  cam.write("/dev/a.zip", "payload" + wire::build_trailer(sig_text(k, "something else")));
  uint64_t size = 0;
  EXPECT_TRUE(take_signature_trailer("/dev/a.zip", &size).ok);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(cam.read("/dev/a.zip"), "payload");
  // A plain file (shorter than a trailer, or longer) is left as it is.
  for (const std::string& plain : {std::string(), std::string("abc"), std::string(5000, 'p')}) {
    cam.write("/dev/b.zip", plain);
    size = 99;
    EXPECT_TRUE(take_signature_trailer("/dev/b.zip", &size).ok);
    EXPECT_EQ(size, 99u);
    EXPECT_EQ(cam.read("/dev/b.zip"), plain);
    EXPECT_TRUE(check_detached_signature("/dev/b.zip").ok);
  }
}

// One damaged key file is enough to make a camera keyed, and then nothing
// passes until a readable key is there; the reason names the key file.
TEST(SiteKeys, KeyedCameraNeedsAGoodSignatureFromAReadableKey) {
  FakeCamera cam;
  wire::key_pair k = wire::generate_key_pair();
  const std::string image(70000, 'i');
  cam.write("/dev/fw.img", image);
  cam.write("/dev/fw.img.minisig", sig_text(k, image));
  cam.write("/customer/keys/site.pub", "damaged");
  EXPECT_TRUE(camera_is_keyed());
  EXPECT_FALSE(check_detached_signature("/dev/fw.img").ok);

  cam.write("/customer/keys/site.pub", wire::format_public_key(k.pub));
  EXPECT_TRUE(check_detached_signature("/dev/fw.img").ok);
  cam.write("/dev/fw.img", image + "x");
  signature_check bad = check_detached_signature("/dev/fw.img");
  EXPECT_FALSE(bad.ok);
  EXPECT_NE(bad.why.find("/customer/keys/site.pub"), std::string::npos) << bad.why;
  cam.write("/dev/fw.img.minisig", "");
  EXPECT_FALSE(check_detached_signature("/dev/fw.img").ok);

  // Trailer: missing, or signed over other bytes -> refused and not cut.
  for (const std::string& f : {image, image + wire::build_trailer(sig_text(k, "other"))}) {
    cam.write("/dev/a.zip", f);
    EXPECT_FALSE(take_signature_trailer("/dev/a.zip", nullptr).ok);
    EXPECT_EQ(cam.read("/dev/a.zip").size(), f.size());
  }
}

// A keyed camera hashes a multicast file while it arrives. The verdict is
// the one the file on disk gets: chunks of any size, the signature's tail
// arriving in pieces, a stream that missed bytes (the file is read instead).
TEST(SiteKeys, FileHashedAsItArrivesGetsTheVerdictOfTheStoredFile) {
  FakeCamera cam;
  wire::key_pair k = wire::generate_key_pair();
  cam.write("/customer/keys/site.pub", wire::format_public_key(k.pub));
  std::string payload(20000, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 + i / 251);
  const std::string good = payload + wire::build_trailer(sig_text(k, payload));
  std::string altered = good;
  altered[100] ^= 1;
  struct stream_case {
    std::string file;
    size_t chunk;
    size_t skip;  // bytes the stream never saw
    bool ok;
  };
  for (const stream_case& c : {stream_case{good, 5078, 0, true}, {good, 1, 0, true},
                               {good, 3000, 3000, true}, {altered, 5078, 0, false},
                               {altered, 4096, 4096, false}}) {
    streamed_prehash h;
    h.start(c.file.size(), true);
    for (size_t at = c.skip; at < c.file.size(); at += c.chunk)
      h.feed(c.file.data() + at, std::min(c.chunk, c.file.size() - at));
    cam.write("/dev/s.zip", c.file);
    uint64_t size = 0;
    EXPECT_EQ(take_signature_trailer("/dev/s.zip", &size, &h).ok, c.ok) << c.chunk << " " << c.skip;
    EXPECT_EQ(cam.read("/dev/s.zip").size(), c.ok ? payload.size() : c.file.size());
  }
  // What is checked is what arrived: bytes changed in the stored file behind
  // the stream's back after they were hashed do not pass as the received ones.
  streamed_prehash h;
  h.start(good.size(), true);
  h.feed(altered.data(), altered.size());
  cam.write("/dev/s.zip", good);
  EXPECT_FALSE(take_signature_trailer("/dev/s.zip", nullptr, &h).ok);
}

}  // namespace
