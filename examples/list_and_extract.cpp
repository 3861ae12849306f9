// Lists an image, and with a second argument extracts it, through the class interface alone.
// Usage: list_and_extract IMAGE [FOLDER]
#include <capsule/capsule.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kRange = 65536;

// The pieces of a long name lie last first, 13 units of two bytes each; a zero unit ends the name.
// Names that were inserted as bytes have one byte a unit.
std::string LongName(capsule::CapsuleFileBlock& block) {
  std::string name;
  for (int piece = block.GetLongFileNameLength() - 26; piece >= 0; piece -= 26) {
    for (int unit = piece; unit < piece + 26; unit += 2) {
      const char* bytes = block.GetLongFileName() + unit;
      if (bytes[0] == 0 && bytes[1] == 0) return name;
      name += bytes[1] == 0 ? bytes[0] : '?';
    }
  }
  return name;
}

std::string Trimmed(const unsigned char* bytes, int count) {
  while (count > 0 && bytes[count - 1] == ' ') --count;
  return std::string(bytes, bytes + count);
}

std::string NameOf(capsule::CapsuleFileBlock& block) {
  if (block.GetLongFileNameLength() > 0) return LongName(block);
  const capsule::_DirectoryEntry& record = *block.GetDirectoryPointer();
  const bool other = block.GetDirectoryType() != capsule::CapsuleDirectoryEntry::DirTypeFat16;
  const capsule::_ShortDirEntry& entry = other ? record.OtherEntry : record.FirstEntry;
  const std::string extension = Trimmed(entry.Extension, 3);
  return Trimmed(entry.Name, 8) + (extension.empty() ? "" : "." + extension);
}

// Never let a name from an image lead out of the folder.
bool IsPlain(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool Extract(capsule::CapsuleFile& image, capsule::CapsuleFileBlock& block, const fs::path& path) {
  std::ofstream out(path, std::ios::binary);
  const auto size = static_cast<int>(block.GetDirectoryEntry().FileSize());
  for (int start = 0; start < size;) {
    int length = std::min(kRange, size - start);
    if (block.DecompressFile(&image, start, &length) != 0 || length <= 0) return false;
    out.write(static_cast<const char*>(block.GetPtrToDecompressedFile()), length);
    start += length;
  }
  return out.flush().good();
}

// One list of blocks that is still to be shown, and where it lies.
struct Folder {
  capsule::CpsList* blocks;
  std::string name;
};

// `target`: where to extract to, or empty.
bool Show(capsule::CapsuleFile& image, capsule::CpsList& top, int partition,
          const std::string& target) {
  bool good = true;
  std::vector<Folder> folders = {{&top, "/" + std::to_string(partition)}};
  while (!folders.empty()) {
    const Folder folder = folders.back();
    folders.pop_back();
    if (!target.empty()) fs::create_directories(target + folder.name);
    for (int i = 0; i < folder.blocks->GetCount(); ++i) {
      auto& block = *static_cast<capsule::CapsuleFileBlock*>(folder.blocks->GetAt(i));
      const std::string name = NameOf(block);
      if (!IsPlain(name)) continue;
      const std::string path = folder.name + "/" + name;
      const bool directory = block.GetDirectoryEntry().IsDirectory() != 0;
      std::printf("%10u  %s%s\n", block.GetDirectoryEntry().FileSize(), path.c_str(),
                  directory ? "/" : "");
      if (directory) {
        folders.push_back({&block.FileList(), path});
      } else if (!target.empty() && !Extract(image, block, target + path)) {
        std::fprintf(stderr, "cannot extract %s\n", path.c_str());
        good = false;
      }
    }
  }
  return good;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fputs("usage: list_and_extract IMAGE [FOLDER]\n", stderr);
    return 2;
  }
  capsule::CapsuleFile image(argv[1]);
  int result = -1;
  try {
    if (image.GetImageFileHandle() != 0) result = image.ReadImage(0);
  } catch (int) {  // the index cannot be read
  }
  if (result != 0) {
    std::fprintf(stderr, "%s: not an image that can be read\n", argv[1]);
    return 2;
  }
  bool good = true;
  capsule::CpsList& partitions = image.GetPartitions();
  for (int i = 0; i < partitions.GetCount(); ++i) {
    auto& partition = *static_cast<capsule::CapsulePartition*>(partitions.GetAt(i));
    good = Show(image, partition.GetFileBlocks(), i, argc == 3 ? argv[2] : "") && good;
  }
  image.CloseImageFileHandle();
  return good ? 0 : 1;
}
