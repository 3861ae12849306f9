// Uses a bit of every part of the installed library: the codec, the classes, host/, an exception
// across the border, and a class of its own derived from an exported one.
#include <all_headers.h>  // every header that is installed

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool CodecWorks() {
  const std::string text(1000, 'a');
  std::vector<unsigned char> area(capsule::LzsSizeOfCompressionHistory());
  std::vector<unsigned char> packed(200);
  capsule::LzsInitCompressionHistory(area.data());
  const auto* source = reinterpret_cast<const unsigned char*>(text.data());
  unsigned char* destination = packed.data();
  uint32_t sourceCount = 1000;
  uint32_t room = 200;
  const uint16_t result = capsule::LzsCompress(&source, &destination, &sourceCount, &room,
                                               area.data(), capsule::LzsEndOfInput, 8);
  return result == (capsule::LzsInputUsedUp | capsule::LzsUnitComplete);
}

bool HostWorks(const char* folder) {
  const std::string path = std::string(folder) + "/host.cap";
  capsule::host::ImageBuilder builder(path);
  builder.AddDirectory(std::string(folder) + "/in");
  static_cast<void>(builder.Finish());
  const capsule::host::Image image(path);
  std::vector<unsigned char> bytes(100);
  return image.Read(image.Find("0:/file").value(), 0, bytes) == 6 &&
         std::memcmp(bytes.data(), "hello\n", 6) == 0;
}

bool ErrorsArrive() {
  try {
    capsule::host::Image("/nowhere/at/all");
  } catch (const capsule::host::Error&) {
    return true;
  }
  return false;
}

bool ClassesWork(const char* folder) {
  capsule::platform::SetRoot('C', folder);
  capsule::platform::SetMessageSink([](const char*, void*) {}, nullptr);
  struct HostFile : capsule::CapsuleFile {
  } image;
  const std::string path = std::string(folder) + "/classes.cap";
  return image.CreateCapsuleFile(path.c_str()) == 0 && image.SetCompressionLevel(5) == 0 &&
         image.WriteImageFileHeader("Capsulate 1") == 0 && image.InsertFile("C:\\in", 0) == 0 &&
         image.InsertFile("C:\\in\\file", 0) == 0 && image.CloseImageFile() == 0;
}

bool ThreadsWork() {
  struct Worker : capsule::CapsuleThread {
    void threadBody() override { done.setEvent(); }
    capsule::CapsuleEvent done{"consumer", capsule::CapsuleEvent::ManualReset};
  } worker;
  return worker.startThread() != 0 &&
         worker.done.waitAll(10000, capsule::CapsuleEvent::ReturnIndex) == 0 &&
         worker.isThreadStopped(10000) == 0;
}

}  // namespace

// Prints one digit a part, 1 for those that work. Its argument: a folder with in/file.
int main(int, char** argv) {
  const bool works[] = {CodecWorks(), HostWorks(argv[1]), ErrorsArrive(), ClassesWork(argv[1]),
                        ThreadsWork()};
  for (const bool part : works) std::putchar(part ? '1' : '0');
  std::putchar('\n');
}
