// Runs every example of the public headers and the documents.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>

#include "capsule/host/image_builder.h"
#include "tests/docs/example_names.h"

namespace fs = std::filesystem;

bool CopyOne() { return true; }

ExampleFolder::ExampleFolder() : m_strPrevious(fs::current_path()) {
  fs::current_path(m_Directory.Path());
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
  builder.Finish();
  fs::copy_file("photos.cap", "disk.cap");
}

ExampleFolder::~ExampleFolder() { fs::current_path(m_strPrevious); }

namespace {

// Goes down through first children that are not "." or "..".
capsule::CapsuleFileBlock& FirstFile(capsule::CapsuleFile& file) {
  if (file.ReadImage(0) != 0) throw std::runtime_error("disk.cap cannot be read");
  auto* partition = static_cast<capsule::CapsulePartition*>(file.GetPartitions().GetAt(0));
  capsule::CpsList* list = &partition->GetFileBlocks();
  for (int i = 0; i < list->GetCount(); ++i) {
    auto* block = static_cast<capsule::CapsuleFileBlock*>(list->GetAt(i));
    capsule::CapsuleDirectoryEntry& entry = block->GetDirectoryEntry();
    if (entry.ShortName()[0] == '.') continue;
    if (entry.IsDirectory() == 0) return *block;
    list = &block->FileList();
    i = -1;
  }
  throw std::runtime_error("disk.cap has no file");
}

class DocumentExamplesTest : public testing::TestWithParam<Example> {};

TEST_P(DocumentExamplesTest, Runs) {
  g_taken = 0;
  EXPECT_TRUE(GetParam().run());
  EXPECT_EQ(g_taken > 0, GetParam().takes) << "what it says that it shows";
}

std::string NameOf(const testing::TestParamInfo<Example>& example) {
  std::string name = example.param.where;
  for (char& c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
  }
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

const unsigned char* Names::NextInput(uint32_t* size, uint16_t* inputFlags) {
  *size = sizeof bytes;
  *inputFlags = capsule::LzsEndOfInput;
  return bytes;
}

unsigned char* Names::NextRoom(uint32_t* size) {
  *size = static_cast<uint32_t>(buffer.size());
  return buffer.data();
}
