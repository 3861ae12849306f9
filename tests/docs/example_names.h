// What the examples in public headers and documents may take for granted.
//
// Each is the body of a function in a struct derived from Names. It runs in a folder of its own
// with
//   photos/2024/beach.jpg   a file of 100,000 bytes; photos/2024/to-anna.txt; photos/a/b.txt
//   photos.cap, disk.cap    images of photos
//   restored/               an empty folder
// where inserted paths that begin with `C:` are looked for below photos.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "capsule/capsule.h"
#include "capsule/host/image.h"
#include "tests/support/temp_dir.h"

// Counts how often an example handed something to its reader.
inline int g_taken = 0;

inline constexpr auto Use = [](const auto&...) { ++g_taken; };
inline constexpr auto Show = Use;
inline constexpr auto Print = Use;

// Of a job that never ends by itself.
inline bool CopyOne() { return true; }

// Makes the folder of one example the current one.
class ExampleFolder {
 public:
  ExampleFolder();
  ~ExampleFolder();
  ExampleFolder& operator=(ExampleFolder&&) = delete;

 private:
  capsule::test::TempDir m_directory;
  std::string m_previous;
};

struct Names : ExampleFolder {
  Names();
  ~Names();

  // An image by the class interface, read, and its file photos/2024/beach.jpg.
  capsule::CapsuleFile file{"disk.cap"};
  capsule::CapsuleFileBlock& block;

  // disk.cap, for reading and writing.
  int fd;

  capsule::host::Image image{"photos.cap"};
  capsule::host::Entry entry = *image.Find("0:/2024/beach.jpg");

  // A path to insert, and where; the range that is wanted.
  const char* path = "C:\\2024\\to-anna.txt";
  int at = 0;
  int start = 0;
  int wanted = 100;
  int written = 0;

  unsigned char bytes[4] = {1, 2, 3, 4};
  int count = 4;
  unsigned char b = 0;
  std::vector<unsigned char> buffer = std::vector<unsigned char>(10000);

  // Of a compression.
  const unsigned char* source = nullptr;
  unsigned char* destination = nullptr;
  uint32_t sourceCount = 0;
  uint32_t destinationCount = 0;
  uint16_t flags = 0;
  uint16_t effort = 8;
  std::vector<unsigned char> compressionHistory;
  void* history;
  const unsigned char* NextInput(uint32_t* size, uint16_t* inputFlags) {
    *size = sizeof bytes;
    *inputFlags = capsule::LzsEndOfInput;
    return bytes;
  }
  unsigned char* NextRoom(uint32_t* size) {
    *size = static_cast<uint32_t>(buffer.size());
    return buffer.data();
  }
};

struct Example {
  const char* where;
  bool takes;  // it hands something to Use, Show or Print
  std::function<bool()> run;
};

inline void PrintTo(const Example& example, std::ostream* out) { *out << example.where; }

extern const std::vector<Example> kExamples;
