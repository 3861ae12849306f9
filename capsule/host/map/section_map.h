// SectionMap steps through the sections of an image and tells what their records are, also where
// some of them are damaged.
//
// 1. The position only grows, and every step takes at least one byte.
// 2. A record whose header is not one, or whose length leads to no record although a record begins
//    before that place, is damage: the map goes on at the next eight bytes that begin a directory
//    record or end a section.
// 3. Long-name pieces wait for their short entry, at most 63 of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capsule/host/file/file_window.h"
#include "capsule/host/map/map_paths.h"
#include "capsule/host/map/map_sink.h"
#include "capsule/partition/entry_group.h"
#include "capsule/partition/ntfs_records.h"

namespace capsule::host {

class SectionMap {
 public:
  // `end`: where sections end at the latest.
  SectionMap(FileWindow& window, uint64_t end, bool compressed, MapPaths& paths, MapSink& sink)
      : m_window(window), m_end(end), m_compressed(compressed), m_paths(paths), m_sink(sink) {}

  // Maps the section that begins at the sink's position, or behind it when there is none there.
  // False when there is none at all.
  bool Map(int section, uint8_t systemId);

 private:
  bool MapSectionHeader();
  bool MapFatRecord();
  void MapDirectoryRecord(const _MiniHeader& header);
  void MapZeroEntry(const _MiniHeader& header);
  void MapLongName(const _MiniHeader& header, EntryGroup::Payload bytes);
  void MapShortEntry(const _MiniHeader& header);
  void FinishPieces();
  void DropPieces(const std::string& problem);
  void PassPieces();
  void MapData(const _MiniHeader& header);
  void MapTrailer();
  bool MapNtfsRecord();
  void DescribeFileRecord(const _NTFSMiniHeader& header, MapItem* item);

  MapItem ItemAt(MapItem::Kind kind, uint64_t length) const;
  void SkipDamage();

  bool IsFatRecordAt(uint64_t offset);
  bool IsNtfsRecordAt(uint64_t offset);
  bool IsOtherRecordHere();
  int SectionMarksAt(uint64_t offset);
  uint64_t FindFatRecord(uint64_t offset);
  uint64_t FindNtfsRecord(uint64_t offset);
  uint64_t FindSection(uint64_t offset);
  uint64_t Here() const;

  FileWindow& m_window;
  uint64_t m_end;
  bool m_compressed;
  MapPaths& m_paths;
  MapSink& m_sink;

  int m_section = 0;
  bool m_ntfs = false;
  bool m_ended = false;
  EntryGroup m_group;             // the one being read
  std::vector<MapItem> m_pieces;  // of its long name
  uint64_t m_othersEnd = 0;       // of records of unknown types that are told one by one
  std::string m_file;             // path of what data blocks belong to
  bool m_takesData = false;
  bool m_lastSeen = false;
  uint64_t m_fileBytes = 0;  // that the records so far stand for
};

}  // namespace capsule::host
