// The picture store on a real folder: bounds, restart, what a crash leaves, names from outside; and
// its resource in the HTTP service.
#include "gateway/pictures/picture_store.h"

#include <algorithm>
#include <set>

#include "gateway/config/picture_uploader.h"
#include "gateway/pictures/picture_resource.h"
#include "platform/config_mgr.h"
#include "tests/contract/folder.h"
#include "tests/contract/http_fixture.h"

namespace qn {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using Result = PictureStore::Result;
using WhenFull = PictureOptions::WhenFull;

const std::string kJpeg = "\xFF\xD8\xFF\xE0 a picture";

class PictureStoreTest : public testing::Test {
 protected:
  std::string add(PictureStore& store, std::string_view picture, std::string_view owner = "") {
    std::string name;
    EXPECT_EQ(store.add(picture, owner, name), Result::Stored);
    return name;
  }
  // The times of files decide about age after a restart.
  void setAge(const std::string& name, std::chrono::seconds age) {
    fs::last_write_time(folder() / name, fs::file_time_type::clock::now() - age);
  }

  // The store makes it.
  fs::path folder() const { return folder_.path() / "data" / "pictures"; }
  std::set<std::string> names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  Folder folder_;
  PictureOptions options_;
};

TEST_F(PictureStoreTest, KeepsPicturesUnderNamesThatSayTheirKind) {
  PictureStore store(folder(), options_);
  const std::pair<std::string, const char*> cases[] = {
      {kJpeg, ".jpg"},
      {"\x89PNG\r\n\x1A\n" + std::string(3, '\0'), ".png"},
      {"BMx", ".bmp"},
      {"GIF89a", ".bin"},
      {"\xFF\xD8", ".bin"},
      {"", ".bin"},
      {std::string(3'000'000, 'B'), ".bin"},
  };
  std::set<std::string> kept;
  for (const auto& [picture, extension] : cases) {
    const std::string name = add(store, picture);
    EXPECT_EQ(name.size(), 36u);
    EXPECT_TRUE(name.ends_with(extension)) << name;
    EXPECT_EQ(store.find(name), picture);
    kept.insert(name);
  }
  EXPECT_EQ(kept.size(), std::size(cases));
  EXPECT_EQ(names(), kept);
  add(store, kJpeg);
  EXPECT_EQ(names().size(), kept.size() + 1);  // the same picture again is another one
  EXPECT_EQ(fs::status(folder()).permissions(), fs::perms::owner_all);
}

TEST_F(PictureStoreTest, SurvivesARestartAndRemovesWhatACrashLeft) {
  std::string name;
  {
    PictureStore store(folder(), options_);
    name = add(store, kJpeg);
  }
  const std::string stem(32, 'a');
  const auto write = [&](const std::string& file) { std::ofstream(folder() / file) << "half"; };
  write(stem + ".jpg.part");
  write("notes.txt");
  write("x.part");
  fs::create_directory(folder() / (stem + ".png"));
  fs::create_symlink("/etc/passwd", folder() / (stem + ".bmp"));

  PictureStore store(folder(), options_);
  EXPECT_EQ(store.find(name), kJpeg);
  EXPECT_EQ(store.find(stem + ".png"), std::nullopt);
  EXPECT_EQ(store.find(stem + ".bmp"), std::nullopt);
  EXPECT_EQ(names(),
            (std::set<std::string>{name, "notes.txt", "x.part", stem + ".png", stem + ".bmp"}));
}

TEST_F(PictureStoreTest, NamesFromOutsideLeadNowhere) {
  PictureStore store(folder(), options_);
  const std::string name = add(store, kJpeg);
  std::ofstream(folder() / "notes.txt") << "secret";
  const std::string stem = name.substr(0, 32);
  for (const std::string& each :
       {""s, "."s, ".."s, "notes.txt"s, "/etc/passwd"s, std::string(100'000, '/'),
        "../pictures/" + name, "./" + name, "/" + name, "%2e%2e/" + name, name + "/", name + "\0"s,
        stem, stem + ".png"}) {
    EXPECT_EQ(store.find(each), std::nullopt) << each;
  }
}

TEST_F(PictureStoreTest, RefusesWhenFull) {
  options_ = {.maxBytes = 100, .maxCount = 3, .full = WhenFull::Refuse};
  PictureStore store(folder(), options_);
  std::string name;
  EXPECT_EQ(store.add(std::string(101, 'x'), "", name), Result::Full);
  const std::string first = add(store, std::string(90, 'x'));
  EXPECT_EQ(store.add(std::string(11, 'x'), "", name), Result::Full);
  add(store, std::string(10, 'x'));
  add(store, "");
  EXPECT_EQ(store.add("", "", name), Result::Full);
  EXPECT_EQ(names().size(), 3u);
  EXPECT_TRUE(store.find(first));
  store.setOptions({.maxBytes = 1000, .maxCount = 2, .full = WhenFull::DropOldest});
  EXPECT_EQ(names().size(), 3u) << "new bounds count from the next picture on";
  add(store, kJpeg);
  EXPECT_EQ(names().size(), 2u);
}

TEST_F(PictureStoreTest, DropsTheOldestWhenFull) {
  options_ = {.maxBytes = 100, .maxCount = 3, .full = WhenFull::DropOldest};
  std::string first, second;
  {
    PictureStore store(folder(), options_);
    second = add(store, std::string(40, 'x'));
    first = add(store, std::string(40, 'x'));
  }
  setAge(first, 20s);
  setAge(second, 10s);
  PictureStore store(folder(), options_);
  std::string name;
  EXPECT_EQ(store.add(std::string(101, 'x'), "", name), Result::Full);
  const std::string third = add(store, std::string(60, 'x'));  // the first one's room
  EXPECT_EQ(names(), (std::set<std::string>{second, third}));
  EXPECT_EQ(store.find(first), std::nullopt);
  const std::string fourth = add(store, "");
  const std::string fifth = add(store, "");  // a fourth picture would be one too many
  EXPECT_EQ(names(), (std::set<std::string>{third, fourth, fifth}));
  const std::string large = add(store, std::string(100, 'x'));
  EXPECT_EQ(names(), (std::set<std::string>{fourth, fifth, large}));
}

void publishUsers(std::initializer_list<const char*> names) {
  auto configuration = std::make_shared<Configuration>();
  for (const char* name : names) configuration->users.push_back({name, "", "1", {}});
  configuration->buildIndexes();
  publishConfiguration(configuration);
}

// Also after a restart, which must know whose pictures they are.
TEST_F(PictureStoreTest, AUserPushesOutOnlyTheOwnPicturesAndLeavesRoom) {
  publishUsers({"modest", "greedy", "late"});
  options_ = {.maxBytes = 160, .maxCount = 40, .full = WhenFull::DropOldest};
  const std::string ten = "1234567890";
  std::vector<std::string> modest, greedy;
  {
    PictureStore store(folder(), options_);
    for (int i = 0; i < 5; ++i) modest.push_back(add(store, ten, "modest"));
    greedy.push_back(add(store, ten, "greedy"));
  }
  PictureStore store(folder(), options_);
  for (int i = 0; i < 50; ++i) add(store, "", "greedy");
  for (int i = 0; i < 50; ++i) greedy.push_back(add(store, ten, "greedy"));
  const auto kept = [&](const std::vector<std::string>& all) {
    return std::ranges::count_if(all,
                                 [&](const auto& name) { return store.find(name).has_value(); });
  };
  EXPECT_EQ(kept(modest), 5);
  EXPECT_EQ(kept(greedy), 8) << "three quarters of what is left";
  EXPECT_TRUE(store.find(greedy.back()));
  std::string name;
  EXPECT_EQ(store.add(std::string(84, 'x'), "greedy", name), Result::Full);
  EXPECT_EQ(kept(greedy), 8);

  const std::vector<std::string> late = {add(store, ten, "late"), add(store, ten, "late")};
  EXPECT_EQ(kept(modest) + kept(greedy) + kept(late), 15) << "there is room for who comes late";
  greedy.push_back(add(store, ten, "greedy"));
  EXPECT_EQ(kept(greedy), 6) << "who has most makes way with the next picture";
  EXPECT_EQ(kept(modest) + kept(late), 7);

  publishUsers({"greedy", "late"});
  for (int i = 0; i < 50; ++i) greedy.push_back(add(store, ten, "greedy"));
  EXPECT_EQ(kept(modest), 0) << "nobody's go first";
  EXPECT_EQ(kept(late), 2);
  EXPECT_EQ(kept(greedy), 10);
}

TEST_F(PictureStoreTest, FailuresLeaveNothingAndTakeNoRoom) {
  options_.maxCount = 1;
  PictureStore store(folder(), options_);
  const fs::path aside = folder().string() + "-aside";
  fs::rename(folder(), aside);
  std::string name;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(store.add(kJpeg, "", name), Result::Failed);
  fs::rename(aside, folder());
  EXPECT_TRUE(names().empty());
  const std::string stored = add(store, kJpeg);
  EXPECT_EQ(store.find(stored), kJpeg);
  fs::remove(folder() / stored);
  EXPECT_EQ(store.find(stored), std::nullopt);
}

TEST_F(PictureStoreTest, ManyAtOnceStayWithinTheBounds) {
  options_ = {.maxBytes = 1000, .maxCount = 7, .full = WhenFull::DropOldest};
  PictureStore store(folder(), options_);
  std::atomic<int> stored{0};
  onThreads(4, [&](int t) {
    for (int i = 0; i < 25; ++i) {
      const std::string picture(std::size_t(50 + 40 * t), char('a' + t));
      std::string name;
      if (store.add(picture, "", name) != Result::Stored) continue;
      ++stored;
      const auto found = store.find(name);  // unless it has been dropped by now
      EXPECT_TRUE(!found || *found == picture);
    }
  });
  EXPECT_EQ(stored, 100);
  std::size_t bytes = 0;
  for (const std::string& name : names()) {
    EXPECT_TRUE(store.find(name)) << name;
    bytes += fs::file_size(folder() / name);
  }
  EXPECT_LE(bytes, 1000u);
  EXPECT_LE(names().size(), 7u);
}

// ---- in the HTTP service

bool isServed(uint16_t port) { return port == NetworkOptions().picturePort; }

class PictureHttp : public HttpFixture {
 protected:
  PictureHttp() : pictures_(folder_.path() / "pictures", PictureOptions(), isServed) {
    publishConfiguration(std::make_shared<const Configuration>());
    answering([](const stHttpRes&) { return "the module"; });
    own_ = {pictures_.resource()};
    start();
  }
  ~PictureHttp() override { stop(); }

  // The path of the URL under which the picture was stored.
  std::string upload(const std::string& picture) {
    int error = -1;
    std::string url;
    EXPECT_TRUE(QN_ConfigMgr_GetNetworkCfg()->uploadFacetoPss(error, url, picture, "/x"));
    EXPECT_EQ(error, 0);
    const std::string server = "http://127.0.0.1:8090";
    EXPECT_TRUE(url.starts_with(server + "/NovGatewayStorage/")) << url;
    return url.substr(server.size());
  }
  Folder folder_;
  PictureResource pictures_;
};

TEST_F(PictureHttp, ServesPicturesAndNothingElseOnItsPort) {
  const std::string path = upload(kJpeg);
  const uint16_t extra = freePort();
  service_->setExtraPorts({{extra, Access::Everything}});
  EXPECT_EQ(RawClient(extra).ask(get("/KAVRO/x")).body, "the module");
  service_->setExtraPorts({{extra, Access::OwnResources}});
  for (const uint16_t each : {port(), extra}) {
    RawClient client(each);
    const HttpAnswer answer = client.ask(get(path + "?x"));
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body, kJpeg);
    EXPECT_TRUE(answer.has("content-type: image/jpeg\r\n"));
    EXPECT_TRUE(answer.has("cache-control: private\r\n"));
    client.send(get(path, "HEAD"));
    const HttpAnswer head = client.answer(true);
    EXPECT_TRUE(head.has("content-length: " + std::to_string(kJpeg.size()) + "\r\n"));
    for (const char* method : {"PUT", "POST", "DELETE", "OPTIONS", "PATCH"}) {
      EXPECT_EQ(client.ask(get(path, method)).status, 404) << method;
    }
    const std::string hostile[] = {path + "x", path + "/", "/NovGatewayStorage/",
                                   "/NovGatewayStorage/../" + path.substr(1),
                                   "/NovGatewayStorage/?" + path.substr(19)};
    for (const std::string& target : hostile) {
      const HttpAnswer refused = client.ask(get(target));
      EXPECT_EQ(refused.status, 404) << target;
      EXPECT_TRUE(refused.has("content-type: application/json\r\n"));
    }
    const HttpAnswer other = client.ask(get("/KAVRO/System/time"));
    EXPECT_EQ(other.status, each == extra ? 404 : 200);
    EXPECT_EQ(other.body == "the module", each != extra);
    EXPECT_EQ(client.ask(get(path.substr(0, 18))).status, each == extra ? 404 : 200);
  }
}

TEST(PictureUpload, NoStoreIsAFailureAndAFullOneIs3610) {
  Folder folder;
  publishConfiguration(std::make_shared<const Configuration>());
  const auto network = QN_ConfigMgr_GetNetworkCfg();
  int error = 7;
  std::string url;
  EXPECT_FALSE(network->uploadFacetoPss(error, url, kJpeg, "/x")) << "there is no store";
  EXPECT_EQ(error, 0);
  const PictureOptions one{.maxBytes = 100, .maxCount = 1, .full = WhenFull::Refuse};
  bool served = false;
  const PictureResource pictures(folder.path() / "pictures", one,
                                 [&](uint16_t port) { return isServed(port) && served; });
  EXPECT_FALSE(network->uploadFacetoPss(error, url, kJpeg, "/x")) << "the port is another's";
  EXPECT_EQ(error, 0);
  served = true;
  EXPECT_TRUE(network->uploadFacetoPss(error, url, kJpeg, "/x"));
  EXPECT_FALSE(network->uploadFacetoPss(error, url, kJpeg, "/x"));
  EXPECT_EQ(error, 3610);
}

}  // namespace
}  // namespace qn
