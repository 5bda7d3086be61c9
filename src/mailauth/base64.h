// Base64 with the standard alphabet and "=" padding, never line-wrapped.
// Decoding never fails: bytes outside the alphabet count as the value 255.
#ifndef DRAVNIK_MAILAUTH_BASE64_H_
#define DRAVNIK_MAILAUTH_BASE64_H_

#include <cstddef>

// `out` must hold 4 * ceil(len / 3) + 1 bytes.
void base64Encode(const unsigned char* in, size_t len, char* out);
size_t base64ArrayDecode(const char* in, size_t len, unsigned char* out);
size_t base64Decode(const char* in, unsigned char* out);

// Allocating forms; free() the results.
char* b64_encode(const unsigned char* in, size_t len);
unsigned char* b64_decode(const char* in, size_t* len);
char* b64_encode_cstr(const char* str);
char* b64_decode_cstr(const char* str);

#endif  // DRAVNIK_MAILAUTH_BASE64_H_
