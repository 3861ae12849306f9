// A file is looked for in the target first where that spares work: in folders that stood there
// before, and before long files. Publishing decides, in one step, so a file that appears meanwhile
// is not replaced either.
#include "capsule/host/extract/file_extraction.h"

#include "capsule/host/error.h"
#include "capsule/host/extract/piece_writer.h"
#include "capsule/host/records/record_stream.h"

namespace capsule::host {

ExtractedFile FileExtraction::Extract(const Entry& file, const TargetFolder& folder,
                                      const std::function<void(uint64_t bytes)>& onBytes) const {
  RefuseExisting(file, folder, m_options.force);
  OutputFile out(folder, file);
  ExtractedFile done;
  const auto take = [&](std::span<const unsigned char> bytes, uint64_t zeros) {
    out.Write(done.bytes, bytes);
    done.bytes += bytes.size() + zeros;
    onBytes(done.bytes);
  };
  const auto onLost = [&](const LostRange& lost) {
    done.isDamaged = true;
    if (m_options.onLost) m_options.onLost(file.Path(), lost);
  };
  m_image.CopyLeft(file, 0, file.Size(), m_options.onDamage, take, onLost);
  out.Publish(done.bytes, m_options.force);
  return done;
}

void FileExtraction::ExtractShort(RecordSource source, const Entry& file,
                                  const TargetFolder& folder, Workspace& workspace,
                                  uint64_t* written) const {
  if (!folder.isNew) RefuseExisting(file, folder, m_options.force);
  try {
    OutputFile out(folder, file);
    PieceWriter pieces(out, workspace.piece, 0);
    const uint64_t size = source.size;
    RecordStream records(std::move(source));
    if (size == 0) records.ExpectEmpty();
    while (records.ChunkEnd() < size) {
      records.Advance(records.ChunkEnd());
      const uint64_t count = std::min(size, records.ChunkEnd()) - records.ChunkBegin();
      pieces.Append(records.Chunk().first(static_cast<size_t>(count)));
      *written = pieces.Written();
    }
    pieces.Flush();
    *written = pieces.Written();
    out.Publish(size, m_options.force);
  } catch (const ShortageError&) {
    throw;
  } catch (const Error&) {
    // What stands in the way is told rather than what else is wrong.
    RefuseExisting(file, folder, m_options.force);
    throw;
  }
}

}  // namespace capsule::host
