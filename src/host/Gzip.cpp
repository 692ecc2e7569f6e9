// Helpers::GzipFile and GunzipFile: files streamed through zlib into a temporary file that takes
// the target's place only when it is whole.
#include <veskan/Helpers.h>

#include "sys/File.h"
#include "sys/Path.h"

#include <zlib.h>

#include <atomic>
#include <vector>

namespace Veskan {

namespace {

constexpr std::size_t Chunk = 64 * 1024;
constexpr int GzipWindowBits = 15 + 16;  // zlib's way of asking for the gzip wrapper
std::atomic<std::uint64_t> gunzipLimit{std::uint64_t{4} << 30};

// A file written beside the target, which replaces the target on Commit and is removed
// otherwise.
class PendingFile {
 public:
  explicit PendingFile(const std::string& target) : target_(target) {
    int error = 0;
    file_ = Sys::File(Sys::MakeUniqueFile(target + ".partial-", path_, error));
  }
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  ~PendingFile() {
    if (!committed_ && !path_.empty()) Sys::RemoveFile(path_);
  }

  bool IsOpen() const { return file_.IsOpen(); }
  bool Write(const unsigned char* bytes, std::size_t count) {
    int error = 0;
    return count == 0 || file_.WriteAll(bytes, count, error);
  }
  bool Commit() {
    file_.Close();
    int error = 0;
    committed_ = Sys::RenamePath(path_, target_, error);
    return committed_;
  }

 private:
  std::string target_;
  std::string path_;
  Sys::File file_;
  bool committed_ = false;
};

// Owns a zlib stream.
class Stream {
 public:
  explicit Stream(bool deflating) : deflating_(deflating) {
    ready_ = deflating ? deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, GzipWindowBits,
                                      8, Z_DEFAULT_STRATEGY) == Z_OK
                       : inflateInit2(&stream_, GzipWindowBits) == Z_OK;
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    if (!ready_) return;
    if (deflating_)
      deflateEnd(&stream_);
    else
      inflateEnd(&stream_);
  }
  bool Ready() const { return ready_; }
  z_stream* operator->() { return &stream_; }
  z_stream* Get() { return &stream_; }

 private:
  z_stream stream_{};
  bool deflating_;
  bool ready_ = false;
};

// Streams `source` through the zlib stream into `target`; false on any failure, and for output
// past `limit`.
bool Transform(const StringBuffer& source, const StringBuffer& target, bool deflating,
               std::uint64_t limit) {
  int error = 0;
  Sys::File input = Sys::File::Open(source.ToUTF8().c_str(), Sys::File::Mode::ReadExisting, error);
  if (!input.IsOpen() || target.isEmpty()) return false;
  PendingFile output(target.ToUTF8());
  Stream stream(deflating);
  if (!output.IsOpen() || !stream.Ready()) return false;
  std::vector<unsigned char> in(Chunk);
  std::vector<unsigned char> out(Chunk);
  std::uint64_t written = 0;
  bool ended = false;
  for (bool atEnd = false; !ended;) {
    if (stream->avail_in == 0 && !atEnd) {
      const std::int64_t got = input.Read(in.data(), in.size(), error);
      if (got < 0) return false;
      atEnd = got == 0;
      stream->next_in = in.data();
      stream->avail_in = static_cast<uInt>(got);
    }
    stream->next_out = out.data();
    stream->avail_out = static_cast<uInt>(out.size());
    int result;
    if (deflating) {
      result = deflate(stream.Get(), atEnd ? Z_FINISH : Z_NO_FLUSH);
      ended = result == Z_STREAM_END;
      if (result == Z_STREAM_ERROR) return false;
    } else {
      result = inflate(stream.Get(), Z_NO_FLUSH);
      ended = result == Z_STREAM_END;
      if (result == Z_NEED_DICT || result == Z_DATA_ERROR || result == Z_MEM_ERROR) return false;
      // No progress at the end of the input: the stream is cut short.
      if (result == Z_BUF_ERROR && atEnd && stream->avail_in == 0) return false;
    }
    const std::size_t produced = out.size() - stream->avail_out;
    written += produced;
    if (written > limit || !output.Write(out.data(), produced)) return false;
  }
  // Bytes after the gzip member (a second member is not expanded): the file is not what it says.
  if (!deflating && stream->avail_in > 0) return false;
  return output.Commit();
}

}  // namespace

bool Helpers::GzipFile(const StringBuffer& source, const StringBuffer& target) {
  return Transform(source, target, true, UINT64_MAX);
}

bool Helpers::GunzipFile(const StringBuffer& source, const StringBuffer& target) {
  return Transform(source, target, false, gunzipLimit.load());
}

void Helpers::SetGunzipLimit(std::uint64_t bytes) {
  gunzipLimit.store(bytes);
}

}  // namespace Veskan
