#include "backend/cluster_file.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace backend_test {

using backend::ClusterFile;
using backend::parseClusterList;
using testing::ElementsAre;

TEST(clusterFile, listIsReadOrRefusedWithTheLine) {
  const auto list =
      parseClusterList("# members\r\n12 \r\n\r\n1.2.3.4:5\r\n#x\n6.7.8.9:10");
  EXPECT_EQ(list.sequence, 12);
  EXPECT_THAT(list.servers, ElementsAre("1.2.3.4:5", "6.7.8.9:10"));
  EXPECT_EQ(parseClusterList("-1\n1.2.3.4:5\n").sequence, -1);
  const std::pair<const char*, const char*> bad[] = {
      {"", "no sequence number"},       {"5\n", "no servers"},
      {"1.2.3.4:5\n", "line 1"},        {"99999999999\n1.2.3.4:5\n", "line 1"},
      {"5\n1.2.3.4\n", "line 2"},       {"5\n1.2.3.4:0\n", "line 2"},
      {"5\n1.2.3.4:65536\n", "line 2"}, {"5\n1.2.3.4:+7\n", "line 2"},
      {"5\n\n1.2.3.400:7\n", "line 3"}, {"5\nlocalhost:7\n", "line 2"},
      {"5\n1.2.3.4:7 8\n", "line 2"}};
  for (const auto& [text, says] : bad) {
    EXPECT_THAT([text = text] { (void)parseClusterList(text); },
                testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(says)))
        << text;
  }
}

TEST(clusterFile, changesAreSeenAndBadOnesPassedOver) {
  const std::string path =
      testing::TempDir() + "cluster-" + std::to_string(getpid()) + ".txt";
  ClusterFile file(path);
  EXPECT_EQ(file.current(), nullptr) << "no file yet";
  const std::pair<const char*, std::int64_t> steps[] = {
      {"1\n1.2.3.4:5\n", 1},
      {"2\n1.2.3.4:6\n", 2},  // of the same size
      {"nonsense\n", 2},      // the last good list stays
      {nullptr, 2},           // no file
      {"3\n1.2.3.4:7\n", 3}};
  for (const auto& [text, sequence] : steps) {
    if (text) std::ofstream(path + ".new") << text;
    ASSERT_EQ(text ? std::rename((path + ".new").c_str(), path.c_str())
                   : std::remove(path.c_str()),
              0);
    ASSERT_NE(file.current(), nullptr);
    EXPECT_EQ(file.current()->sequence, sequence);
  }
  EXPECT_EQ(std::remove(path.c_str()), 0);
  EXPECT_EQ(ClusterFile(testing::TempDir()).current(), nullptr) << "a folder";
  EXPECT_EQ(ClusterFile("/dev/zero").current(), nullptr) << "a file without end";
}

}  // namespace backend_test
