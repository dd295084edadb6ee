// IDataStreamSet: numbered streams plus a block of user data in one file.
//
// A set (a file package) comes from CreateFilePackage or OpenFilePackage
// and is held through RefPtr<IDataStreamSet>; releasing the last reference
// saves unsaved changes and closes the file. Streams are created with a
// fixed size and get an identifier (all ones means "no stream"); they are
// opened by identifier and removed by identifier. Changes reach the file on
// Save (or at the end of the set's life).
//
// A file whose data turn out to be damaged, or a file call that fails,
// raises one of the library's exceptions (all derive from std::exception)
// from OpenStream, CreateStream, RemoveStream and Save. When CreateStream
// or RemoveStream throws after it began to change the set, the change may
// be half done: Save then throws and writes nothing until Reload, and the
// set's end saves nothing, so the file keeps its last completed save.
//
// Thread-safety: none; a set and its streams are used by one thread at a
// time.
#ifndef TOVREL_IDATASTREAMSET_H
#define TOVREL_IDATASTREAMSET_H

#include <cstdint>

#include "host/ARefObject.h"
#include "host/RefPtr.h"
#include "tovrel/IDataStream.h"
#include "tovrel/export.h"

namespace Tovrel {

class TOVREL_API IDataStreamSet : public NorvaneGraphics::ARefObject {
 protected:
  ~IDataStreamSet() override;

 public:
  static constexpr std::uint64_t kNoStream = ~std::uint64_t{0};

  IDataStreamSet();

  // Re-reads the file, dropping unsaved changes; false when it is unusable.
  virtual bool Reload() = 0;
  // Writes every change to the file; false on failure.
  virtual bool Save() = 0;
  // Sum of the sizes of all streams.
  virtual std::uint64_t GetTotalStreamSize() const = 0;
  virtual bool SetUserDataSize(std::uint64_t size) = 0;
  virtual std::uint64_t GetUserDataSize() const = 0;
  // The user data, read only; reading never marks the set modified.
  virtual const std::uint8_t* GetUserData() const = 0;
  // The user data, for writing; marks the set modified.
  virtual std::uint8_t* GetUserData() = 0;
  virtual std::uint64_t GetNumberOfStreams() const = 0;
  // Identifier of the index-th stream, in ascending identifier order.
  virtual std::uint64_t GetStreamIdentifier(std::uint64_t index) const = 0;
  // The stream, or an empty RefPtr; the same object while it stays open.
  virtual RefPtr<IDataStream> OpenStream(std::uint64_t identifier) = 0;
  // A new stream of `size` bytes; kNoStream on refusal, with nothing
  // changed. Sizes of 2^31 bytes or more are always refused: a stream's
  // positions are values of signed 32-bit arithmetic (see IDataStream::Seek),
  // so the largest stream holds 2^31 - 1 bytes.
  virtual std::uint64_t CreateStream(std::uint64_t size) = 0;
  virtual bool RemoveStream(std::uint64_t identifier) = 0;
};

}  // namespace Tovrel

#endif
