// The tessera files both media servers keep in their work folder until
// Flush. Every tessera started gets a new GUID text as its file name and the
// next record number; Flush copies the files, in start order, into the data
// file as records and deletes them:
//
//   data file := record*
//   record    := length:u32 big-endian, the tessera file's `length` bytes
//
// Record numbers count from the handle's first tessera and go on across
// Flushes, since each Flush appends its records to the same data file.
// Files of tesserae started and never assembled are deleted when the object
// goes, so a handle destroyed without Flush leaves its work folder as it
// found it.
//
// Thread safety: none; an object belongs to one server handle.
#ifndef ZELVARPACK_MEDIA_TESSERA_FILES_H_
#define ZELVARPACK_MEDIA_TESSERA_FILES_H_

#include <cstdint>
#include <string>
#include <vector>

namespace zelvarpack {

class OutputFile;

class TesseraFiles {
 public:
  explicit TesseraFiles(std::string workDirectory) : workDirectory_(std::move(workDirectory)) {}
  ~TesseraFiles();
  TesseraFiles(const TesseraFiles&) = delete;
  TesseraFiles& operator=(const TesseraFiles&) = delete;

  // Starts a tessera: a new GUID name (the file is not created here) and
  // the record number it will have in the data file.
  std::uint32_t Start(std::string& name);
  std::string PathOf(const std::string& name) const { return workDirectory_ + "/" + name; }

  // Copies the started tesserae's files, in start order, into `data` as
  // records, deleting each once copied, and forgets them. Throws "Could not
  // open file." when a file cannot be read.
  void AppendRecords(OutputFile& data);

  // Tesserae started since the last AppendRecords.
  std::size_t Pending() const { return names_.size(); }

 private:
  std::string workDirectory_;
  std::vector<std::string> names_;
  std::uint32_t nextRecord_ = 0;
};

}  // namespace zelvarpack

#endif  // ZELVARPACK_MEDIA_TESSERA_FILES_H_
