// Opens the image that it is given and reads the files at its top level, in ranges of 400 bytes.
#include "tests/support/open_image.h"

int main(int, char** arguments) {
  using namespace capsule;
  test::OpenImage image(arguments[1]);
  if (image.Read() != 0) return 1;
  CpsList& files = image.Partition(0)->GetFileBlocks();
  for (int i = 0; CapsuleFileBlock* file = test::BlockAt(files, i); ++i) {
    if (!file->ReadDataBlocks(image.Descriptor(), file->GetDUPDATAOffset())) return 2;
    int length = 400;
    for (int at = 0; file->DecompressFile(&image.File(), at, &length) == 0; at += length) {
      if (length <= 0) return 3;
    }
  }
}
