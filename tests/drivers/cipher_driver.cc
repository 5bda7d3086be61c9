// Runs the mail password cipher from the command line, for black-box tests
// that check the stored texts against an independent AES implementation.
//
//   cipher_driver encrypt <key file> <password>        prints the stored text
//   cipher_driver decrypt <key file> <stored text>     prints the password
//   cipher_driver crypt <key file> <password> <spec>   encrypts with a given
//                                                      "$<spec>$<base64 IV>$"
#include <stdio.h>
#include <string.h>

#include "mailauth/auth_db.h"
#include "mailauth/cipher.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

int Usage() {
  fprintf(stderr,
          "usage: cipher_driver encrypt|decrypt <key file> <text>\n"
          "       cipher_driver crypt <key file> <password> <encryption spec>\n");
  return 1;
}

// Prints the result, or fails when there is none (the reason is logged).
int Print(char* result) {
  tavix::unique_free<char> text(result);
  if (!text)
    return 1;
  printf("%s\n", text.get());
  return 0;
}

int Crypt(const char* key_path, const char* password, const char* enc_spec) {
  if (!mail_aes_init(key_path))
    return 1;
  const int status = Print(tavix_cipher_crypt(password, enc_spec));
  mail_aes_cleanup();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  tavix_log_init("stderr", 6, 16, 0, "cipher_driver");
  if (argc < 4)
    return Usage();
  const char* command = argv[1];
  mailAuthKeySetPath(argv[2]);
  if (strcmp(command, "encrypt") == 0 && argc == 4)
    return Print(mailPasswdCipherOp(argv[3], 1, "driver", nullptr));
  if (strcmp(command, "decrypt") == 0 && argc == 4)
    return Print(mailPasswdCipherOp(argv[3], 0, "driver", nullptr));
  if (strcmp(command, "crypt") == 0 && argc == 5)
    return Crypt(argv[2], argv[3], argv[4]);
  return Usage();
}
