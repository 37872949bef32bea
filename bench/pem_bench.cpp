// PEM text beside OpenSSL's, of a 2048-bit RSA private key and of a body of 1 MiB. Usage: pem_bench [ROUNDS
// [MILLISECONDS]]

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <random>
#include <string>

#include "bench/measure.h"
#include "support/lockcrypto.h"

namespace corvane::bench {

namespace {

constexpr char label[] = "RSA PRIVATE KEY";

std::string make_key() {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  unsigned char* der = nullptr;
  const int size = i2d_PrivateKey(key, &der);
  must(size > 0, "a key");
  std::string bytes(reinterpret_cast<const char*>(der), static_cast<size_t>(size));
  OPENSSL_free(der);
  EVP_PKEY_free(key);
  return bytes;
}

std::string make_body() {
  std::mt19937 random(1);
  std::string bytes(1 << 20, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

/// The text, in a memory buffer that the caller frees.
BIO* write_with_openssl(std::string_view bytes) {
  BIO* bio = BIO_new(BIO_s_mem());
  must(PEM_write_bio(bio, label, "", reinterpret_cast<const unsigned char*>(bytes.data()),
                     static_cast<long>(bytes.size())) > 0,
       "PEM_write_bio");
  return bio;
}

std::string text_of(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return {text, static_cast<size_t>(size)};
}

/// Answers whether the octets are these.
bool read_with_openssl(const std::string& text, std::string_view bytes) {
  BIO* bio = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* octets = nullptr;
  long size = 0;
  must(PEM_read_bio(bio, &name, &header, &octets, &size) > 0, "PEM_read_bio");
  const bool same = static_cast<size_t>(size) == bytes.size() && octets[0] == static_cast<unsigned char>(bytes[0]);
  OPENSSL_free(name);
  OPENSSL_free(header);
  OPENSSL_free(octets);
  BIO_free(bio);
  return same;
}

void round(const std::string& name, const std::string& bytes, milliseconds slice) {
  const auto data = plist::Data::create(bytes);
  const auto ours = lockcrypto_create_pem(*data, label);
  BIO* bio = write_with_openssl(bytes);
  const std::string theirs = text_of(bio);
  BIO_free(bio);
  must(ours.get() != nullptr && ours->bytes() == theirs, "the text");
  must(lockcrypto_decode_pem(ours.get(), label)->bytes() == bytes, "the bytes");

  const auto us = [&](auto operation) { return time_of_each(slice, operation) / 1e3; };
  figure("encode " + name, "lockcrypto", "us", us([&] { keep(lockcrypto_create_pem(*data, label)); }));
  figure("encode " + name, "OpenSSL", "us", us([&] { BIO_free(write_with_openssl(bytes)); }));
  figure("decode " + name, "lockcrypto", "us", us([&] { keep(lockcrypto_decode_pem(ours.get(), label)); }));
  figure("decode " + name, "OpenSSL", "us", us([&] { must(read_with_openssl(theirs, bytes), "the octets"); }));
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  const std::string key = make_key();
  const std::string body = make_body();
  const milliseconds slice(count_argument(argc, argv, 2, 60));
  for (size_t left = count_argument(argc, argv, 1, 9); left > 0; --left) {
    round("a 2048-bit key", key, slice);
    round("1 MiB", body, slice);
  }
}
