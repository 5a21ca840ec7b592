// Decode throughput of the transfer-encoding filters beside a plain memcpy of
// the same encoded data in the same run (the physical limit).
//   codec_bench [megabytes]    (default 32)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "mime/codec_streams.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;

// A sink that keeps the bytes in a preallocated buffer, as a caller writing
// into a message body would.
class Sink final : public trv::CXmStream {
 public:
  explicit Sink(size_t capacity) : buf_(capacity, '\0') {}
  trv::Result Read(void*, size_t, size_t* got) override {
    *got = 0;
    return trv::rc::kNotImplemented;
  }
  trv::Result Write(const void* p, size_t n) override {
    if (pos_ + n > buf_.size()) return trv::rc::kFail;
    std::memcpy(buf_.data() + pos_, p, n);
    pos_ += n;
    return trv::rc::kOk;
  }
  using trv::CXmStream::Write;
  trv::Result Seek(int64_t, trv::SeekOrigin) override {
    pos_ = 0;
    return trv::rc::kOk;
  }
  uint64_t Position() const override { return pos_; }
  uint64_t Size() const override { return pos_; }

 private:
  std::string buf_;
  size_t pos_ = 0;
};

// Best time of kRounds runs of `fn`, in seconds.
template <typename Fn>
double Best(Fn fn) {
  double best = 1e9;
  for (int i = 0; i < kRounds; ++i) {
    const auto t0 = Clock::now();
    fn();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
  }
  return best;
}

template <typename Encoder>
std::string Encode(const std::string& data) {
  trv::CXmMemoryStream out;
  Encoder enc(out);
  enc.Write(data).Ignore();
  enc.Finish().Ignore();
  return out.Take();
}

// Decodes `encoded` in blocks of 64 KiB (as a body is read) and returns MB/s
// of encoded input.
template <typename Decoder>
double DecodeRate(const std::string& encoded, Sink& sink, size_t expected) {
  const double s = Best([&] {
    sink.Seek(0, trv::SeekOrigin::kBegin).Ignore();
    Decoder dec(sink, 76, 64 * 1024);
    for (size_t i = 0; i < encoded.size(); i += 64 * 1024) {
      dec.Write(encoded.data() + i, std::min<size_t>(64 * 1024, encoded.size() - i)).Ignore();
    }
    dec.Finish().Ignore();
  });
  if (sink.Size() != expected) {
    std::fprintf(stderr, "decoded size %llu, expected %zu\n", static_cast<unsigned long long>(sink.Size()),
                 expected);
    std::exit(1);
  }
  return encoded.size() / 1e6 / s;
}

double MemcpyRate(const std::string& data) {
  std::string dst(data.size(), '\0');
  const double s = Best([&] {
    for (size_t i = 0; i < data.size(); i += 64 * 1024) {
      std::memcpy(dst.data() + i, data.data() + i, std::min<size_t>(64 * 1024, data.size() - i));
    }
  });
  if (dst != data) std::exit(1);
  return data.size() / 1e6 / s;
}

void Report(const char* name, const std::string& encoded, double rate) {
  const double copy = MemcpyRate(encoded);
  std::printf("%-34s %8.1f MB/s   memcpy %8.1f MB/s   ratio %.3f\n", name, rate, copy, rate / copy);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t mb = argc > 1 ? static_cast<size_t>(std::atoi(argv[1])) : 32;
  const size_t n = std::max<size_t>(mb, 1) * 1000 * 1000;
  std::mt19937 rng(42);

  std::string binary(n, '\0');
  for (char& c : binary) c = static_cast<char>(rng());
  // Text with one 8-bit character in about 20 and line ends, as a
  // quoted-printable body of a European language looks.
  std::string text(n, '\0');
  const char kLetters[] = "abcdefghijklmnopqrstuvwxyz      ,.";
  for (size_t i = 0; i < n; ++i) {
    const uint32_t r = rng() % 1000;
    text[i] = r < 50 ? static_cast<char>(0xC0 + r % 32) : kLetters[r % (sizeof kLetters - 1)];
  }

  const std::string b64 = Encode<trv::CXmBase64Encoder>(binary);
  const std::string qp = Encode<trv::CXmQpEncoder>(text);
  Sink sink(n);
  std::printf("codec_bench: %zu MB decoded per run, best of %d runs, 64 KiB blocks\n", n / 1000000, kRounds);
  Report("base64 decode (binary)", b64, DecodeRate<trv::CXmBase64Decoder>(b64, sink, n));
  Report("quoted-printable decode (text)", qp, DecodeRate<trv::CXmQpDecoder>(qp, sink, n));
  return 0;
}
