/* Cipher, digest and random numbers of the packet library: AES, SHA-256, and the generator that makes session keys.
 *
 * AES and SHA-256 are the published algorithms (FIPS 197, FIPS 180-2); in and out go bytes in the standards' order.
 * The processor's own instructions are used where it has them, the results are the same without. Nothing here
 * allocates, logs or fails but where a line says so. For one thread: the pool and the digest of packet_sha256 are one
 * for the process. */
#ifndef PACKET_CRYPTO_H
#define PACKET_CRYPTO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PACKET_AES_BLOCK = 16,          /* bytes of a block, and of an AES-128 key */
    PACKET_AES_SCHEDULE_WORDS = 60, /* room for the schedule of any key: 240 bytes */
    PACKET_SHA256_BLOCK = 64,
    PACKET_SHA256_DIGEST = 32
};

/* ---- AES ------------------------------------------------------------------------------------------------------ */

/** Expands a key for enciphering.
 *
 *  @param schedule  room for PACKET_AES_SCHEDULE_WORDS; the caller wipes it after use. Its words are those of the
 *                   standard as numbers
 *  @param key       bits / 8 bytes
 *  @param bits      128, 192 or 256
 *  @return the number of rounds, 10, 12 or 14, which goes with the schedule in each call; 0, with nothing written,
 *          for any other `bits`
 */
int packet_aes_key_enc(uint32_t *schedule, const unsigned char *key, int bits);

/** The same for deciphering: the schedule of the standard's equivalent inverse cipher. */
int packet_aes_key_dec(uint32_t *schedule, const unsigned char *key, int bits);

/** One block of 16 bytes under an expanded key; `in` and `out` may be the same. Does nothing for a number of rounds
 *  that packet_aes_key_enc doesn't give. */
void packet_aes_encrypt_block(const uint32_t *schedule, int rounds, const unsigned char *in, unsigned char *out);
void packet_aes_decrypt_block(const uint32_t *schedule, int rounds, const unsigned char *in, unsigned char *out);

/** AES-128, block after block, each by itself (electronic code book mode). `in` and `out` may be the same.
 *
 *  @param key     16 bytes
 *  @param length  bytes. One that isn't a multiple of 16 is rounded up: a whole block is read and written last
 */
void packet_aes_encrypt(const unsigned char *key, const unsigned char *in, int length, unsigned char *out);
void packet_aes_decrypt(const unsigned char *key, const unsigned char *in, int length, unsigned char *out);

/* ---- SHA-256 -------------------------------------------------------------------------------------------------- */

/** A digest in the making. */
typedef struct PACKET_SHA256_S {
    uint32_t state[8];
    uint32_t bitCount[2];                     /* bits taken in so far, high word first */
    unsigned char block[PACKET_SHA256_BLOCK]; /* what doesn't fill a block yet */
    uint8_t fill;                             /* how much of it there is */
} PACKET_SHA256_S;

void packet_sha256_init(PACKET_SHA256_S *context);

/** Takes in `length` bytes; nothing for a length of 0 or less. */
void packet_sha256_update(PACKET_SHA256_S *context, const void *data, int length);

/** Pads and takes in what is left; then the digest can be read. */
void packet_sha256_finish(PACKET_SHA256_S *context);

/** Writes the 32 bytes of a finished digest. Does nothing for a null target. */
void packet_sha256_digest(const PACKET_SHA256_S *context, unsigned char *target);

/** All at once. The 32 bytes lie in a static block until the next packet_sha256 or packet_random. */
unsigned char *packet_sha256(const void *data, int length);

/* ---- Random numbers ------------------------------------------------------------------------------------------- */

/** Gives a random integer from 0 to 2^31-1.
 *
 *  The first call of the process seeds the generator, for which it looks for this host's access key: it may read the
 *  key file, ask the name service, and log what those log. It also seeds and draws from rand().
 *
 *  @param data    bytes to be mixed in first; null for none
 *  @param length  how many
 */
int packet_random(const void *data, int length);

/** packet_random with the four bytes of `value` mixed in. */
int packet_random_seed(uint32_t value);

#ifdef __cplusplus
}
#endif

#endif
