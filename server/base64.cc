#include "server/base64.h"

#include <array>

#include "saffra/platform/internal/cpu.h"

#if SAFFRA_X86_DISPATCH
#include <immintrin.h>
#endif

namespace saffra::server {

namespace {

constexpr std::uint8_t kBlank = 0xFE;
constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& v : table) v = kInvalid;
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  for (char c : {' ', '\t', '\r', '\n'}) table[static_cast<unsigned char>(c)] = kBlank;
  return table;
}

constexpr std::array<std::uint8_t, 256> kTable = makeTable();

/// A final quantum of two or three sextets carries one or two bytes; one sextet carries none.
/// Writes the bytes of a final quantum of `sextets` sextets (with `padding` "=") and checks it
/// as decodeBase64 does.
bool finishQuantum(std::uint32_t accumulator, int sextets, int padding, std::uint8_t*& out) {
  if (sextets == 1 || padding > 2 || (padding > 0 && sextets + padding != 4)) return false;
  if (sextets == 2) {
    *out++ = static_cast<std::uint8_t>(accumulator >> 4);
  } else if (sextets == 3) {
    *out++ = static_cast<std::uint8_t>(accumulator >> 10);
    *out++ = static_cast<std::uint8_t>(accumulator >> 2);
  }
  return true;
}

#if SAFFRA_X86_DISPATCH
// Sixteen characters at a time while all of them are of the alphabet (no quote, escape, "=" or
// anything else): each becomes its sextet through two nibble lookups, and four sextets become
// three bytes, written at `decoded` (advanced), which has room up to `outEnd` (16 bytes are
// written per step, 12 kept). Returns the first
// character not decoded; the caller decodes the rest, including any step that held another
// character, one character at a time.
SAFFRA_TARGET_SSSE3 const unsigned char* decodeAlphabetRuns(const unsigned char* p,
                                                            const unsigned char* end,
                                                            std::uint8_t*& decoded,
                                                            const std::uint8_t* outEnd) {
  // A local cursor: stores through a byte pointer may alias the caller's one.
  std::uint8_t* out = decoded;
  // A character is of the alphabet when the bits its low and high nibbles pick share none.
  const __m128i lowBits = _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                        0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
  const __m128i highBits = _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10,
                                         0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
  // What to add to a character to get its sextet, by high nibble ("/" apart from "+").
  const __m128i shift = _mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
  const __m128i nibble = _mm_set1_epi8(0x0F);
  const __m128i slash = _mm_set1_epi8('/');
  const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  while (end - p >= 16 && outEnd - out >= 16) {
    const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i high = _mm_and_si128(_mm_srli_epi32(text, 4), nibble);
    const __m128i low = _mm_and_si128(text, nibble);
    const __m128i clash =
        _mm_and_si128(_mm_shuffle_epi8(lowBits, low), _mm_shuffle_epi8(highBits, high));
    if (_mm_movemask_epi8(_mm_cmpgt_epi8(clash, _mm_setzero_si128())) != 0) break;
    const __m128i sextets = _mm_add_epi8(
        text, _mm_shuffle_epi8(shift, _mm_add_epi8(_mm_cmpeq_epi8(text, slash), high)));
    // Pairs of sextets into 12 bits, pairs of those into 24, then the three bytes in order.
    const __m128i pairs = _mm_maddubs_epi16(sextets, _mm_set1_epi32(0x01400140));
    const __m128i quanta = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(quanta, order));
    out += 12;
    p += 16;
  }
  decoded = out;
  return p;
}

// For each 8-bit mask: the positions of its set bits in order (then 0x80, which a shuffle
// reads as zero), and in the ninth byte how many there are.
constexpr std::array<std::array<std::uint8_t, 9>, 256> makePackTable() {
  std::array<std::array<std::uint8_t, 9>, 256> table{};
  for (int mask = 0; mask < 256; ++mask) {
    int n = 0;
    for (int bit = 0; bit < 8; ++bit) {
      if (mask & (1 << bit)) table[mask][n++] = static_cast<std::uint8_t>(bit);
    }
    table[mask][8] = static_cast<std::uint8_t>(n);
    for (; n < 8; ++n) table[mask][n] = 0x80;
  }
  return table;
}

constexpr std::array<std::array<std::uint8_t, 9>, 256> kPackTable = makePackTable();

// The characters of a JSON string's base64 text as the client writes it, escapes dropped
// ("\/" gives "/"; "\r", "\n" and "\t" stand for blanks, which decoding skips anyway), sixteen
// at a time and the same way whatever they hold, from `p` into `copied` (which needs 8 bytes of
// room beyond what it keeps), which is advanced. Stops before the first sixteen that hold a quote,
// a control character, another escape or an escaped backslash, and before an escape it could not
// finish; returns where the characters not copied start.
SAFFRA_TARGET_SSSE3 const unsigned char* dropEscapes(const unsigned char* p,
                                                     const unsigned char* end,
                                                     unsigned char*& copied) {
  // A local cursor: stores through an unsigned char pointer may alias the caller's one.
  unsigned char* out = copied;
  const auto mask = [](__m128i v, char c) {
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(c))));
  };
  const __m128i space = _mm_set1_epi8(' ');
  // Whether the last character copied was an escape's backslash (its escaped one comes next).
  unsigned carried = 0;
  for (; end - p >= 16; p += 16) {
    const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const unsigned atMost =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(text, space), space)));
    const unsigned escapes = mask(text, '\\');
    const unsigned blanks = mask(text, 'r') | mask(text, 'n') | mask(text, 't');
    const unsigned escaped = ((escapes << 1) | carried) & 0xFFFFu;
    if ((atMost & ~mask(text, ' ')) | mask(text, '"') | (escapes & escaped) |
        (escaped & ~(blanks | mask(text, '/')))) {
      break;
    }
    const unsigned keep = ~(escapes | (escaped & blanks)) & 0xFFFFu;
    const auto& low = kPackTable[keep & 0xFF];
    const auto& high = kPackTable[keep >> 8];
    const __m128i order = _mm_unpacklo_epi64(
        _mm_loadl_epi64(reinterpret_cast<const __m128i*>(low.data())),
        _mm_add_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(high.data())),
                     _mm_set1_epi8(8)));
    const __m128i packed = _mm_shuffle_epi8(text, order);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), packed);
    out += low[8];
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_srli_si128(packed, 8));
    out += high[8];
    carried = escapes >> 15;
  }
  copied = out;
  // An escape left unfinished is read again, backslash first.
  return p - carried;
}
#endif

// The largest copy of a screenshot's text a thread keeps for the next one.
constexpr std::size_t kKeptPlainText = std::size_t{16} << 20;

// Bytes of room the vector steps need beyond what they keep.
constexpr std::size_t kStepSlack = 8;

// Decodes base64 text without escapes as decodeBase64 reads it, into `bytes` (room for
// size / 4 * 3 + 3 + kStepSlack bytes); the number of bytes, or nothing.
std::optional<std::size_t> decodePlain(const unsigned char* p, const unsigned char* end,
                                       std::vector<std::uint8_t>& bytes) {
  std::uint8_t* out = bytes.data();
#if SAFFRA_X86_DISPATCH
  const bool ssse3 = cpu::hasSsse3();
  const std::uint8_t* const outEnd = bytes.data() + bytes.size();
#endif
  std::uint32_t accumulator = 0;
  int sextets = 0;  // sextets collected in the current quantum
  int padding = 0;  // "=" seen so far
  while (p != end) {
#if SAFFRA_X86_DISPATCH
    if (ssse3 && sextets == 0 && padding == 0) {
      p = decodeAlphabetRuns(p, end, out, outEnd);
      if (p == end) break;
    }
#endif
    const unsigned char c = *p++;
    if (c == '=') {
      ++padding;
      continue;
    }
    const std::uint8_t value = kTable[c];
    if (value == kBlank) continue;
    if (value == kInvalid || padding > 0) return std::nullopt;
    accumulator = (accumulator << 6) | value;
    if (++sextets == 4) {
      out[0] = static_cast<std::uint8_t>(accumulator >> 16);
      out[1] = static_cast<std::uint8_t>(accumulator >> 8);
      out[2] = static_cast<std::uint8_t>(accumulator);
      out += 3;
      accumulator = 0;
      sextets = 0;
    }
  }
  if (!finishQuantum(accumulator, sextets, padding, out)) return std::nullopt;
  return static_cast<std::size_t>(out - bytes.data());
}

}  // namespace

std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text) {
  std::vector<std::uint8_t> out(text.size() / 4 * 3 + 3 + kStepSlack);
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const std::optional<std::size_t> size = decodePlain(p, p + text.size(), out);
  if (!size) return std::nullopt;
  out.resize(*size);
  return out;
}

std::optional<std::vector<std::uint8_t>> decodeBase64InJsonString(std::string_view text,
                                                                  std::size_t& length) {
  // The string's characters are copied without their escapes, then decoded as plain text. The
  // client's form (alphabet runs broken by "\/" and "\r\n") is copied sixteen characters at
  // a time where the processor allows; the rest, and anything that copying stops at, one by
  // one. The copy goes to a buffer each thread keeps (fresh memory would cost page faults).
  static thread_local std::vector<unsigned char> plain;
  if (plain.size() < text.size() + 16) plain.resize(text.size() + 16);
  struct Shrink {
    ~Shrink() {
      if (plain.size() > kKeptPlainText) std::vector<unsigned char>().swap(plain);
    }
  } shrink;
  const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = begin + text.size();
  const unsigned char* p = begin;
  unsigned char* copied = plain.data();
#if SAFFRA_X86_DISPATCH
  if (cpu::hasSsse3()) p = dropEscapes(p, end, copied);
#endif
  for (;;) {
    if (p == end) return std::nullopt;  // no closing quote
    const unsigned char c = *p++;
    if (c == '"') break;
    if (c < 0x20) return std::nullopt;  // control characters are escaped in JSON strings
    if (c != '\\') {
      *copied++ = c;
      continue;
    }
    if (p == end) return std::nullopt;
    const unsigned char escaped = *p++;
    if (escaped == '/') {
      *copied++ = '/';
    } else if (escaped != 'r' && escaped != 'n' && escaped != 't') {
      return std::nullopt;
    }
  }
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(copied - plain.data()) / 4 * 3 + 3 +
                                  kStepSlack);
  const std::optional<std::size_t> size = decodePlain(plain.data(), copied, bytes);
  if (!size) return std::nullopt;
  bytes.resize(*size);
  length = static_cast<std::size_t>(p - begin) - 1;
  return bytes;
}

}  // namespace saffra::server
