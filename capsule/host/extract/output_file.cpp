// The file is written under a temporary name and gets its own only when it is complete.
//
// A short file in a claimed folder takes five calls, and each has its reason:
//
// 1. openat, exclusive and following no link: the temporary name, which a killed run leaves and the
//    next one knows.
// 2. pwrite, unless the file is empty.
// 3. futimens.
// 4. close, before the file has its name: it tells whether the bytes have arrived.
// 5. renameat2, which does not replace unless that is wanted: it alone decides whether something is
//    in the way. In folders that this run has made nobody looks before.
//
// Zeros that fill a block of the file are not written, so they take no room where the file system
// knows holes.
#include "capsule/host/extract/output_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"
#include "capsule/platform/folder.h"

namespace capsule::host {
namespace {

constexpr char kExists[] = "exists in the target folder, kept";

// A hole takes that much, so that files are not cut into very many parts.
constexpr uint64_t kBlock = uint64_t{64} << 10;

bool IsZero(std::span<const unsigned char> bytes) {
  return bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

}  // namespace

OutputFile::OutputFile(const TargetFolder& folder, const Entry& entry) : m_entry(entry) {
  if (!m_file.Create(folder.Get(), "", entry.IsReadOnly() ? 0444 : 0666, folder.sign)) {
    Fail("cannot create a file");
  }
}

void OutputFile::Write(uint64_t offset, std::span<const unsigned char> bytes) {
  size_t run = 0;  // where what is not written yet begins
  for (size_t at = 0; at < bytes.size();) {
    const auto count =
        static_cast<size_t>(std::min<uint64_t>(kBlock - (offset + at) % kBlock, bytes.size() - at));
    if (count == kBlock && IsZero(bytes.subspan(at, count))) {
      WriteRun(offset + run, bytes.subspan(run, at - run));
      run = at + count;
    }
    at += count;
  }
  WriteRun(offset + run, bytes.subspan(run));
}

void OutputFile::WriteRun(uint64_t offset, std::span<const unsigned char> bytes) {
  if (bytes.empty()) return;
  if (!platform::WriteAt(m_file.Descriptor(), bytes.data(), bytes.size(),
                         static_cast<int64_t>(offset))) {
    Fail("cannot write");
  }
  const uint64_t end = offset + bytes.size();
  for (uint64_t known = m_end; known < end && !m_end.compare_exchange_weak(known, end);) {
  }
}

void OutputFile::Publish(uint64_t size, bool force) {
  if (m_end < size && !platform::Truncate(m_file.Descriptor(), static_cast<int64_t>(size))) {
    Fail("cannot write");
  }
  const auto time = m_entry.ModifiedTime();
  if (time && !platform::SetTimes(m_file.Descriptor(), *time)) Fail("cannot set its time");
  const std::string name(m_entry.Name());
  if (!m_file.Publish(name.c_str(), !force)) Fail("cannot finish the file");
}

void OutputFile::Fail(const std::string& what) const {
  if (errno == EEXIST) throw Error(ErrorKind::Exists, m_entry.Path(), kExists);
  ThrowSystemError(m_entry.Path(), what, errno);
}

void RefuseExisting(const Entry& file, const TargetFolder& folder, bool force) {
  switch (platform::LookIn(folder.Get(), std::string(file.Name()).c_str())) {
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

}  // namespace capsule::host
