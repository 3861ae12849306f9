// The file is written under a temporary name and gets its own only when it is complete. Whether
// something stands in the way is looked at first only to spare work: publishing decides, in one
// step, so a file that appears meanwhile is not replaced either.
#include "capsule/host/extract/file_extraction.h"

#include <cerrno>
#include <string>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"
#include "capsule/platform/folder.h"
#include "capsule/platform/unfinished_file.h"

namespace capsule::host {
namespace {

constexpr char kExists[] = "exists in the target folder, kept";

// A file that goes away again unless it is published.
class TemporaryFile {
 public:
  TemporaryFile(int folder, const Entry& entry) : m_entry(entry) {
    if (!m_file.Create(folder, "", entry.IsReadOnly() ? 0444 : 0666)) Fail("cannot create a file");
  }

  void Append(std::span<const unsigned char> bytes) {
    if (!platform::WriteAt(m_file.Descriptor(), bytes.data(), bytes.size(),
                           static_cast<int64_t>(m_size))) {
      Fail("cannot write");
    }
    m_size += bytes.size();
  }

  // Takes no room where the file system knows holes.
  void AppendZeros(uint64_t count) {
    m_size += count;
    if (!platform::Truncate(m_file.Descriptor(), static_cast<int64_t>(m_size)))
      Fail("cannot write");
  }

  uint64_t Size() const { return m_size; }

  void Publish(bool force) {
    const auto time = m_entry.ModifiedTime();
    if (time && !platform::SetTimes(m_file.Descriptor(), *time)) Fail("cannot set its time");
    const std::string name(m_entry.Name());
    if (!m_file.Publish(name.c_str(), !force)) Fail("cannot finish the file");
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    if (errno == EEXIST) throw Error(ErrorKind::Exists, m_entry.Path(), kExists);
    ThrowSystemError(m_entry.Path(), what, errno);
  }

  Entry m_entry;
  platform::UnfinishedFile m_file;
  uint64_t m_size = 0;
};

// Spares the work where the outcome is known; Publish decides.
void RefuseExisting(const Entry& file, int folder, bool force) {
  switch (platform::LookIn(folder, std::string(file.Name()).c_str())) {
    case platform::Presence::Folder:
      throw Error(ErrorKind::Exists, file.Path(), "a folder is in the way in the target folder");
    case platform::Presence::File:
    case platform::Presence::Other:
      if (!force) throw Error(ErrorKind::Exists, file.Path(), kExists);
      return;
    default:
      return;
  }
}

}  // namespace

ExtractedFile ExtractFile(const Image& image, const Entry& file, int folder,
                          const ExtractOptions& options,
                          const std::function<void(uint64_t bytes)>& onBytes) {
  RefuseExisting(file, folder, options.force);
  TemporaryFile out(folder, file);
  ExtractedFile done;
  const auto take = [&](std::span<const unsigned char> bytes, uint64_t zeros) {
    zeros == 0 ? out.Append(bytes) : out.AppendZeros(zeros);
    onBytes(out.Size());
  };
  image.CopyLeft(file, 0, file.Size(), options.onDamage, take, [&](const LostRange& lost) {
    done.isDamaged = true;
    if (options.onLost) options.onLost(file.Path(), lost);
  });
  out.Publish(options.force);
  done.bytes = out.Size();
  return done;
}

}  // namespace capsule::host
