// Syzygy table files: finding and registering them, mapping them read-only, reading their
// headers and decoding single entries (index computation and block decompression).
//
// Every read from a mapped file is checked against the file's size when the table is set
// up or when an entry is decoded, so a truncated or corrupted file makes the probe fail
// instead of reading outside the mapping.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "board/types.h"
#include "platform/platform.h"

constexpr int TB_PIECES = 6;        // largest table size handled (kings included)
constexpr int TBMAX_PIECE = 254;    // registry room for tables without pawns
constexpr int TBMAX_PAWN = 256;     // and with pawns
constexpr int TBHASHBITS = 10;      // hash buckets: 1 << TBHASHBITS, by the key's top bits
constexpr int HSHMAX = 5;           // slots per bucket
constexpr int DTZ_ENTRIES = 64;     // DTZ files kept mapped at once

constexpr u32 WDL_MAGIC = 0x5D23E871;
constexpr u32 DTZ_MAGIC = 0xA50C66D7;

// Piece codes inside the files: type 1..6 (pawn .. king), plus 8 for the second colour.
constexpr int TB_BLACK = 8;

// One mapped file.
using tb_map = platform::fileMapping;

// The decoding data of one compressed table (one side to move of one pawn file).
struct pairs_data {
    bool present = false;
    bool constant = false;          // every entry holds const_value
    u8 const_value = 0;
    u8 flags = 0;                   // DTZ: side, map, plies-not-moves bits
    int block_size = 0;             // log2 of the bytes per block
    int idx_bits = 0;               // log2 of the entries per main-index step
    int min_len = 0, max_len = 0;   // code lengths in bits
    int num_syms = 0;
    u32 real_num_blocks = 0, num_blocks = 0;
    u64 tb_size = 0, num_indices = 0;
    const u8* offsets = nullptr;    // u16 per code length: first symbol of that length
    const u8* sympat = nullptr;     // 3 bytes per symbol: two 12-bit halves
    const u8* index_table = nullptr;
    const u8* size_table = nullptr;
    const u8* data = nullptr;
    std::vector<u64> base;          // smallest code of each length, left aligned
    std::vector<u32> symlen;        // values a symbol stands for, minus one
};

// Piece order, group sizes and index factors of one table.
struct tb_encoding {
    u8 pieces[TB_PIECES] = {};
    u8 norm[TB_PIECES] = {};
    u64 factor[TB_PIECES] = {};
    pairs_data pairs;
};

// What registration knows of a signature, plus its WDL data once loaded.
struct tb_entry {
    std::string name;               // e.g. "KRPvKR": the file name without extension
    u64 key = 0, key2 = 0;          // material keys as written and colour-swapped
    int num = 0;                    // pieces, kings included
    bool symmetric = false;         // both sides hold the same material
    bool has_pawns = false;
    int enc_type = 0;               // pawnless: 0 = three unique leaders, 2 = two kings
    int pawns[2] = {0, 0};          // leading colour's pawns, then the other colour's
    std::atomic<u8> state{0};       // tb_state: loaded on first use under TB_MUTEX
    tb_map map;
    bool split = false;
    int files = 1;                  // 4 pawn-file tables for pawn endings
    tb_encoding wdl[4][2];          // [pawn file][side to move in file colours]
};

enum tb_state : u8 { TB_UNLOADED = 0, TB_READY = 1, TB_FAILED = 2 };

// A DTZ file: only one side to move is stored, and the values may pass through maps.
struct dtz_entry {
    const tb_entry* meta = nullptr;
    bool ok = false;                // false: missing or corrupted, the probe fails
    tb_map map;
    int files = 1;
    tb_encoding enc[4];
    const u8* maps = nullptr;       // value maps: win, loss, cursed win, blessed loss
    u32 map_idx[4][4] = {};
    u8 map_len[4][4] = {};
};

struct tb_hash_entry {
    u64 key;
    tb_entry* ptr;
};

struct dtz_cache_slot {
    u64 key1 = 0, key2 = 0;
    dtz_entry* entry = nullptr;
};

extern int TB_LARGEST;
extern int TBnum_piece, TBnum_pawn;
extern tb_entry TB_piece[TBMAX_PIECE];
extern tb_entry TB_pawn[TBMAX_PAWN];
extern tb_hash_entry TB_hash[1 << TBHASHBITS][HSHMAX];
extern dtz_cache_slot DTZ_table[DTZ_ENTRIES];
extern std::mutex TB_MUTEX;

// Material key from piece counts [colour][type 1..6]; mirror swaps the colours.
u64 tb_material_key(const int counts[2][8], bool mirror);

// The registered entry of a material key, or null.
tb_entry* tb_lookup(u64 key);

// Maps and sets up the WDL file of e on first use; false when it is missing or corrupted.
bool tb_load_wdl(tb_entry* e);

// Finds (loading it on a miss) the DTZ data of e in the cache. Call with TB_MUTEX held;
// the result stays valid until the lock is released.
const dtz_entry* tb_acquire_dtz(const tb_entry* e);

// The index of a placement. sq holds the squares in the encoding's piece order and is
// reordered; returns ~0 when the placement cannot be encoded.
u64 encode_piece(const tb_encoding& enc, int enc_type, int num, int* sq);
u64 encode_pawn(const tb_encoding& enc, const int pawns[2], int num, int* sq);
// Puts the leading pawn first and returns the pawn-file table it selects (0..3).
int pawn_file(const int pawns[2], int* sq);

// The stored value at idx, or -1 when the data is inconsistent.
int decompress_pairs(const pairs_data& d, u64 idx);
