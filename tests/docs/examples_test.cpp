// Runs every example of the public headers and the documents.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "capsule/host/image_builder.h"
#include "tests/docs/example_names.h"
#include "tests/support/open_image.h"

namespace fs = std::filesystem;

ExampleFolder::ExampleFolder() : m_previous(fs::current_path()) {
  fs::current_path(m_directory.Path());
  std::string beach;
  while (beach.size() < 100000) beach += "wave " + std::to_string(beach.size() % 977) + "\n";
  beach.resize(100000);
  fs::create_directories("photos/2024");
  fs::create_directory("photos/a");
  fs::create_directory("restored");
  capsule::test::WriteFile("photos/2024/beach.jpg", beach);
  capsule::test::WriteFile("photos/2024/to-anna.txt", "Dear Anna");
  capsule::test::WriteFile("photos/a/b.txt", "b");
  capsule::host::ImageBuilder builder("photos.cap");
  builder.AddDirectory("photos");
  static_cast<void>(builder.Finish());
  fs::copy_file("photos.cap", "disk.cap");
}

ExampleFolder::~ExampleFolder() { fs::current_path(m_previous); }

namespace {

capsule::CapsuleFileBlock& FirstFile(capsule::CapsuleFile& file) {
  if (file.ReadImage(0) != 0) throw std::runtime_error("disk.cap cannot be read");
  auto* partition = static_cast<capsule::CapsulePartition*>(file.GetPartitions().GetAt(0));
  capsule::CapsuleFileBlock* first = nullptr;
  capsule::test::ForEachBlock(partition->GetFileBlocks(), [&](capsule::CapsuleFileBlock& block) {
    if (first == nullptr && block.GetDirectoryEntry().IsDirectory() == 0) first = &block;
  });
  if (first == nullptr) throw std::runtime_error("disk.cap has no file");
  return *first;
}

class DocumentExamplesTest : public testing::TestWithParam<Example> {};

TEST_P(DocumentExamplesTest, Runs) {
  g_taken = 0;
  EXPECT_TRUE(GetParam().run());
  EXPECT_EQ(g_taken > 0, GetParam().takes) << "what it says that it shows";
}

std::string NameOf(const testing::TestParamInfo<Example>& example) {
  std::string name = example.param.where;
  const auto isOdd = [](unsigned char c) { return std::isalnum(c) == 0; };
  std::ranges::replace_if(name, isOdd, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, DocumentExamplesTest, testing::ValuesIn(kExamples), NameOf);

}  // namespace

Names::Names()
    : block(FirstFile(file)),
      fd(::open("disk.cap", O_RDWR | O_CLOEXEC)),
      compressionHistory(capsule::LzsSizeOfCompressionHistory()),
      history(compressionHistory.data()) {
  capsule::platform::SetRoot('C', "photos");
  capsule::LzsInitCompressionHistory(history);
}

Names::~Names() {
  ::close(fd);
  file.CloseImageFileHandle();
  capsule::platform::SetRoot('C', nullptr);
}
