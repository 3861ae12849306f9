// Small images with the index that this system makes.
#pragma once

#include <string>

#include "capsule/host/index_writer.h"
#include "tests/support/image_maker.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

// One folder with a file of 700 bytes in two records, and one with 10 bytes.
inline ImageMaker TwoFiles() {
  ImageMaker image;
  image.BeginSection();
  image.Folder("FOLDER     ");
  image.Entry("ONE     BIN", 0x20, 700);
  image.Data(512, false);
  image.Data(512, true);
  image.SmallFile("TWO     BIN", 10);
  image.Close();
  image.EndSection();
  return image;
}

// Writes the image with its index; returns its bytes.
inline std::string WriteIndexed(const std::string& path, ImageMaker image) {
  WriteFile(path, image.Bytes());
  static_cast<void>(host::IndexWriter(path).Write());
  return ReadFile(path);
}

}  // namespace capsule::test
