// DataBlock: the growing byte buffer behind SString.
//
// Purpose    Holds bytes that are written at offsets; grows by what is needed plus a fixed slack.
// Ownership  Owns its buffer; callers may look at it until the next write or the end of the block.
// Thread     Not thread-safe.
// Errors     write() throws std::runtime_error for an offset behind the stored bytes and std::length_error
//            for a size that does not fit the 32-bit counters.
#pragma once

#include <memory>

class DataBlock {
 public:
  /// A buffer of `byteSize` bytes with nothing stored in it.
  explicit DataBlock(unsigned int byteSize);
  /// A buffer that holds exactly a copy of `byteCount` bytes at `data`.
  DataBlock(const char* data, unsigned int byteCount);
  DataBlock(const DataBlock&) = delete;
  DataBlock& operator=(const DataBlock&) = delete;
  virtual ~DataBlock();

  /// Writes behind the last write.
  void write(const char* data, unsigned int byteCount);
  /// Writes at `offset`, which is at most the number of bytes stored. `data` may lie inside this block.
  void write(const char* data, unsigned int byteCount, unsigned int offset);

  [[nodiscard]] char* getDataBlock() const { return dataHolder.get(); }
  [[nodiscard]] unsigned int getCapacity() const { return dataHolderByteSize; }
  [[nodiscard]] unsigned int getCurrentOffset() const { return currentOffset; }
  [[nodiscard]] unsigned int getNumBytesStored() const { return numBytesStored; }

 private:
  std::unique_ptr<char[]> dataHolder;
  unsigned int dataHolderByteSize;
  unsigned int currentOffset;   ///< position after the last write
  unsigned int numBytesStored;  ///< the largest end of any write; never decreases
};
