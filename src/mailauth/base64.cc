#include "mailauth/base64.h"

#include <errno.h>

#include <cstdlib>
#include <cstring>

namespace {

const char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Maps every byte to its 6-bit value, or to 255 when it is not in the
// alphabet. Decoding never rejects input, so a foreign byte simply
// contributes the bits of 255.
struct InverseTable {
  unsigned char value[256];
  InverseTable() {
    std::memset(value, 255, sizeof(value));
    for (unsigned i = 0; i < 64; ++i)
      value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  }
};

unsigned char Sextet(char c) {
  static const InverseTable table;
  return table.value[static_cast<unsigned char>(c)];
}

// Emits the group of `count` (1 to 3) bytes, taken big-endian, as four
// characters, "=" standing for the sextets that carry no input bits.
void EncodeGroup(const unsigned char* in, size_t count, char* out) {
  // Read the whole group before writing: the output may overlay the input.
  unsigned long bits = static_cast<unsigned long>(in[0]) << 16;
  if (count > 1) bits |= static_cast<unsigned long>(in[1]) << 8;
  if (count > 2) bits |= in[2];
  out[0] = kAlphabet[(bits >> 18) & 63];
  out[1] = kAlphabet[(bits >> 12) & 63];
  out[2] = count > 1 ? kAlphabet[(bits >> 6) & 63] : '=';
  out[3] = count > 2 ? kAlphabet[bits & 63] : '=';
}

// Decodes four characters into the first `count` of their three bytes.
void DecodeGroup(const char* in, size_t count, unsigned char* out) {
  const unsigned a = Sextet(in[0]), b = Sextet(in[1]), c = Sextet(in[2]), d = Sextet(in[3]);
  const unsigned char bytes[3] = {
      static_cast<unsigned char>((a << 2) | (b >> 4)),
      static_cast<unsigned char>((b << 4) | (c >> 2)),
      static_cast<unsigned char>((c << 6) | d),
  };
  std::memcpy(out, bytes, count);
}

}  // namespace

void base64Encode(const unsigned char* in, size_t len, char* out) {
  // The output is filled from its end so that a buffer may be encoded in
  // place: every group is read before anything is written over it.
  const size_t whole = len / 3;
  const size_t rest = len % 3;
  const size_t out_len = (whole + (rest ? 1 : 0)) * 4;
  out[out_len] = '\0';
  if (rest)
    EncodeGroup(in + whole * 3, rest, out + whole * 4);
  for (size_t g = whole; g > 0; --g)
    EncodeGroup(in + (g - 1) * 3, 3, out + (g - 1) * 4);
}

size_t base64ArrayDecode(const char* in, size_t len, unsigned char* out) {
  size_t padding = 0;
  if (len >= 2 && in[len - 2] == '=')
    padding = 2;
  else if (len >= 1 && in[len - 1] == '=')
    padding = 1;

  size_t groups = len / 4;
  if (padding) {
    // Too short to hold even the padded group: nothing to decode.
    if (groups == 0)
      return 0;
    --groups;
  }
  for (size_t g = 0; g < groups; ++g)
    DecodeGroup(in + g * 4, 3, out + g * 3);
  if (!padding)
    return groups * 3;
  DecodeGroup(in + groups * 4, 3 - padding, out + groups * 3);
  return groups * 3 + 3 - padding;
}

size_t base64Decode(const char* in, unsigned char* out) {
  return base64ArrayDecode(in, std::strlen(in), out);
}

char* b64_encode(const unsigned char* in, size_t len) {
  if (in == nullptr && len != 0) {
    errno = EINVAL;
    return nullptr;
  }
  char* out = static_cast<char*>(std::malloc((len + 2) / 3 * 4 + 1));
  if (out != nullptr)
    base64Encode(in, len, out);
  return out;
}

unsigned char* b64_decode(const char* in, size_t* len) {
  if (in == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  const size_t in_len = std::strlen(in);
  unsigned char* out = static_cast<unsigned char*>(std::malloc((in_len + 3) / 4 * 3 + 1));
  if (out == nullptr)
    return nullptr;
  const size_t out_len = base64ArrayDecode(in, in_len, out);
  out[out_len] = '\0';
  if (len != nullptr)
    *len = out_len;
  return out;
}

char* b64_encode_cstr(const char* str) {
  if (str == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  return b64_encode(reinterpret_cast<const unsigned char*>(str), std::strlen(str));
}

char* b64_decode_cstr(const char* str) {
  return reinterpret_cast<char*>(b64_decode(str, nullptr));
}
