// The Rijndael block cipher (AES when the block is 16 bytes) with ECB, CBC and CFB chaining.
// Keys and blocks of 16, 24 or 32 bytes. Used by the payload envelope (Zip.h). MakeKey, Encrypt,
// Decrypt and ResetChain change the object (one thread at a time); once keyed, EncryptCbc and
// DecryptCbc only read it and may run on several threads at once, each with its own chain block.
// 16-byte blocks use the AES instructions where the processor has them, the tables elsewhere.
#ifndef VELTO_RIJNDAEL_H
#define VELTO_RIJNDAEL_H

#include <cstddef>
#include <cstdint>

namespace Velto {

class CRijndael {
  public:
    enum { ECB = 0, CBC = 1, CFB = 2 };
    enum { DEFAULT_BLOCK_SIZE = 16, MAX_BLOCK_SIZE = 32, MAX_ROUNDS = 14, MAX_KC = 8, MAX_BC = 8 };

    static const char* sm_szErrorMsg1;  // "Object not Initialized"
    static const char* sm_szErrorMsg2;  // "Data not multiple of Block Size"

    CRijndael();
    virtual ~CRijndael();

    // Expands the key; copies blockLen bytes of chain as the IV. Throws std::exception on a null key
    // or a key/block length other than 16, 24 or 32 (nothing changed then).
    void MakeKey(const char* key, const char* chain, int keylength = DEFAULT_BLOCK_SIZE,
                 int blockSize = DEFAULT_BLOCK_SIZE);
    // One 16-byte block with the T-tables (never the AES instructions).
    void DefEncryptBlock(const char* in, char* result);
    void DefDecryptBlock(const char* in, char* result);
    // One block of the configured size (AES instructions or tables).
    void EncryptBlock(const char* in, char* result);
    void DecryptBlock(const char* in, char* result);
    // n bytes (a whole number of blocks, n > 0) in mode ECB/CBC/CFB; any other mode acts as ECB.
    // The running chain continues across calls. Throws std::exception when not keyed or n is bad.
    void Encrypt(const char* in, char* result, size_t n, int iMode = ECB);
    void Decrypt(const char* in, char* result, size_t n, int iMode = ECB);
    // CBC over n bytes (a whole number of blocks, n > 0) with the caller's chain block (block-size
    // bytes), which is left as the last cipher block so that a later call continues the chain. The
    // object's own chain is neither read nor changed. Throws std::exception when not keyed or n is bad.
    void EncryptCbc(const char* in, char* result, size_t n, char* chain) const;
    void DecryptCbc(const char* in, char* result, size_t n, char* chain) const;
    // XORs block-size bytes of chain into buff.
    void Xor(char* buff, const char* chain);

    int GetKeyLength() const;
    int GetBlockSize() const;
    int GetRounds() const;
    void ResetChain();

    // Whether this processor has the AES instructions (checked once, on first use).
    static bool HardwareAes();
    // true keeps this object on the table code even where the AES instructions are present, so that
    // the two paths can be compared; effective from the next call.
    void UseTablesOnly(bool on);

  private:
    // Standard Rijndael constants over GF(2^8) with polynomial 0x11B, precomputed in Rijndael.cpp.
    static const uint8_t sm_S[256];    // S-box
    static const uint8_t sm_Si[256];   // inverse S-box
    static const uint32_t sm_T1[256];  // encryption round tables (SubBytes + MixColumns)
    static const uint32_t sm_T2[256];
    static const uint32_t sm_T3[256];
    static const uint32_t sm_T4[256];
    static const uint32_t sm_T5[256];  // decryption round tables (InvSubBytes + InvMixColumns)
    static const uint32_t sm_T6[256];
    static const uint32_t sm_T7[256];
    static const uint32_t sm_T8[256];
    static const uint32_t sm_U1[256];  // InvMixColumns alone, for the decryption key schedule
    static const uint32_t sm_U2[256];
    static const uint32_t sm_U3[256];
    static const uint32_t sm_U4[256];
    static const uint8_t sm_rcon[30];     // key-schedule round constants
    static const int sm_shifts[3][4][2];  // ShiftRows offsets per block size: [Nb 4/6/8][row][enc, dec]
    static const uint8_t sm_alog[256];    // powers of the generator 3
    static const uint8_t sm_log[256];     // their logarithms
    static const char sm_chain0[MAX_BLOCK_SIZE];  // default (all-zero) chain block

    void check_ready() const;
    void check_length(size_t n) const;
    bool use_hw() const;
    void encrypt16(const char* in, char* result) const;  // tables, 16-byte block
    void decrypt16(const char* in, char* result) const;
    void encrypt_block(const char* in, char* result) const;  // configured block, either path
    void decrypt_block(const char* in, char* result) const;

    bool m_bKeyInit;
    bool m_bTablesOnly;
    uint32_t m_Ke[MAX_ROUNDS + 1][MAX_BC];
    uint32_t m_Kd[MAX_ROUNDS + 1][MAX_BC];
    // m_Ke and m_Kd of a 16-byte block as bytes, round after round: the AES instructions' key order.
    uint8_t m_hwKe[(MAX_ROUNDS + 1) * 16];
    uint8_t m_hwKd[(MAX_ROUNDS + 1) * 16];
    int m_keylength;
    int m_blockSize;
    int m_iROUNDS;
    char m_chain0[MAX_BLOCK_SIZE];
    char m_chain[MAX_BLOCK_SIZE];
};

}  // namespace Velto

#endif
