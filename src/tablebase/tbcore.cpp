#include "tablebase/tbcore.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "board/output.h"
#include "platform/platform.h"
#include "tablebase/tbprobe.h"

int TB_LARGEST = 0;
int TBnum_piece = 0, TBnum_pawn = 0;
tb_entry TB_piece[TBMAX_PIECE];
tb_entry TB_pawn[TBMAX_PAWN];
tb_hash_entry TB_hash[1 << TBHASHBITS][HSHMAX];
dtz_cache_slot DTZ_table[DTZ_ENTRIES];
std::mutex TB_MUTEX;

namespace {

// ---------------------------------------------------------------------------------------
// Index tables of the Syzygy numbering, built by the first init_tablebases call.

bool indicesReady = false;
int triangle[64];       // a1-d1-d4 triangle: 0..5 off the diagonal, 6..9 on it
int lowerIdx[64];       // squares below the a1-h8 diagonal numbered 0..27
int diagIdx[64];        // squares of the a1-h8 diagonal numbered 0..7
int offdiag[64];        // +1 above the diagonal (rank > file), -1 below, 0 on it
int flipdiag[64];       // reflection in the a1-h8 diagonal
int KK_idx[10][64];     // two kings, the first in the triangle; -1 where impossible
u64 binomial[TB_PIECES][64];   // binomial[k][n] = C(n, k + 1)
u64 pawnidx[TB_PIECES][24];
u64 pfactor[TB_PIECES][4];

// clang-format off
// Order of the squares a pawn may lead from: files a/h first, then b/g, c/f, d/e, and
// within a file from the second rank up.
const u8 flap[64] = {
    0,  0,  0,  0,  0,  0,  0,  0,
    0,  6, 12, 18, 18, 12,  6,  0,
    1,  7, 13, 19, 19, 13,  7,  1,
    2,  8, 14, 20, 20, 14,  8,  2,
    3,  9, 15, 21, 21, 15,  9,  3,
    4, 10, 16, 22, 22, 16, 10,  4,
    5, 11, 17, 23, 23, 17, 11,  5,
    0,  0,  0,  0,  0,  0,  0,  0,
};
// Rank of a square among the places the other leading pawns may take: every square a
// pawn could lead from counts higher than the squares that come after it.
const u8 ptwist[64] = {
     0,  0,  0,  0,  0,  0,  0,  0,
    47, 35, 23, 11, 10, 22, 34, 46,
    45, 33, 21,  9,  8, 20, 32, 44,
    43, 31, 19,  7,  6, 18, 30, 42,
    41, 29, 17,  5,  4, 16, 28, 40,
    39, 27, 15,  3,  2, 14, 26, 38,
    37, 25, 13,  1,  0, 12, 24, 36,
     0,  0,  0,  0,  0,  0,  0,  0,
};
// clang-format on

const u64 pivfac[3] = {31332, 28056, 462};
const int triangleSquares[10] = {1, 2, 3, 10, 11, 19, 0, 9, 18, 27};

u64 choose(int n, int k) {
    if (k < 0 || n < k)
        return 0;
    u64 r = 1;
    for (int i = 1; i <= k; i++)
        r = r * u64(n - k + i) / u64(i);
    return r;
}

void initIndices() {
    for (int sq = 0; sq < 64; sq++) {
        int f = fileOf(sq), r = rankOf(sq);
        offdiag[sq] = r > f ? 1 : r < f ? -1 : 0;
        flipdiag[sq] = ((sq >> 3) | (sq << 3)) & 63;
        diagIdx[sq] = f == r ? f : 0;
        int ff = f > 3 ? 7 - f : f, rr = r > 3 ? 7 - r : r;
        if (rr > ff)
            std::swap(rr, ff);
        triangle[sq] = ff == rr ? 6 + ff : rr == 0 ? ff - 1 : rr == 1 ? ff + 1 : 5;
    }
    int n = 0;
    for (int r = 0; r < 8; r++)
        for (int f = r + 1; f < 8; f++)
            lowerIdx[8 * r + f] = n++;
    for (int sq = 0; sq < 64; sq++) {
        if (offdiag[sq] > 0)
            lowerIdx[sq] = lowerIdx[flipdiag[sq]];
        else if (offdiag[sq] == 0)
            lowerIdx[sq] = 28 + fileOf(sq);
    }

    // Two kings: first king off the diagonal with the second anywhere, then first king on
    // the diagonal with the second below it, and last both on the diagonal.
    std::fill(&KK_idx[0][0], &KK_idx[0][0] + 10 * 64, -1);
    n = 0;
    for (int pass = 0; pass < 3; pass++)
        for (int t = pass ? 6 : 0; t < (pass ? 10 : 6); t++) {
            int s1 = triangleSquares[t];
            for (int s2 = 0; s2 < 64; s2++) {
                bool near = std::abs(fileOf(s1) - fileOf(s2)) <= 1
                         && std::abs(rankOf(s1) - rankOf(s2)) <= 1;
                bool wanted = pass == 0 || (pass == 1 ? offdiag[s2] < 0 : offdiag[s2] == 0);
                if (wanted && !near)
                    KK_idx[t][s2] = n++;
            }
        }

    for (int k = 0; k < TB_PIECES; k++)
        for (int m = 0; m < 64; m++)
            binomial[k][m] = choose(m, k + 1);

    for (int t = 0; t < TB_PIECES; t++)
        for (int file = 0; file < 4; file++) {
            u64 s = 0;
            for (int j = 6 * file; j < 6 * file + 6; j++) {
                pawnidx[t][j] = s;
                int sq = 8 + 8 * (j % 6) + j / 6;
                s += t == 0 ? 1 : binomial[t - 1][ptwist[sq]];
            }
            pfactor[t][file] = s;
        }
    indicesReady = true;
}

// ---------------------------------------------------------------------------------------
// Registration.

std::vector<std::string> paths;

constexpr std::array<u64, 256> makeMaterialCodes() {
    std::array<u64, 256> r{};
    u64 s = 0x7A3C5E1F2B4D6987ULL;
    for (auto& v : r) {
        v = splitMix64(s);
    }
    return r;
}
constexpr std::array<u64, 256> materialCodes = makeMaterialCodes();

int letterType(char c) {
    switch (c) {
    case 'P': return PAWN;
    case 'N': return KNIGHT;
    case 'B': return BISHOP;
    case 'R': return ROOK;
    case 'Q': return QUEEN;
    case 'K': return KING;
    default: return 0;
    }
}

void addToHash(tb_entry* e, u64 key) {
    tb_hash_entry* bucket = TB_hash[key >> (64 - TBHASHBITS)];
    for (int i = 0; i < HSHMAX; i++)
        if (!bucket[i].ptr) {
            bucket[i] = {key, e};
            return;
        }
    std::fputs("HSHMAX too low!\n", stderr);
    std::exit(1);
}

bool fileExists(const std::string& name, const char* ext) {
    for (const std::string& dir : paths) {
        if (platform::isReadable(dir + "/" + name + ext))
            return true;
    }
    return false;
}

void initTb(const std::string& name) {
    if (!fileExists(name, ".rtbw"))
        return;
    int counts[2][8] = {};
    int side = 0;
    for (char c : name) {
        if (c == 'v')
            side = 1;
        else
            counts[side][letterType(c)]++;
    }
    bool pawns = counts[0][PAWN] + counts[1][PAWN] > 0;
    if (!pawns && TBnum_piece == TBMAX_PIECE) {
        std::fputs("TBMAX_PIECE limit too low!\n", stderr);
        std::exit(1);
    }
    if (pawns && TBnum_pawn == TBMAX_PAWN) {
        std::fputs("TBMAX_PAWN limit too low!\n", stderr);
        std::exit(1);
    }
    tb_entry* e = pawns ? &TB_pawn[TBnum_pawn++] : &TB_piece[TBnum_piece++];
    e->name = name;
    e->key = tb_material_key(counts, false);
    e->key2 = tb_material_key(counts, true);
    e->symmetric = e->key == e->key2;
    e->has_pawns = pawns;
    e->num = 0;
    int unique = 0;
    for (int c = 0; c < 2; c++)
        for (int t = 1; t <= 6; t++) {
            e->num += counts[c][t];
            unique += counts[c][t] == 1;
        }
    e->enc_type = unique >= 3 ? 0 : 2;
    int w = counts[0][PAWN], b = counts[1][PAWN];
    if (b > 0 && (w == 0 || b < w)) {
        e->pawns[0] = b;
        e->pawns[1] = w;
    } else {
        e->pawns[0] = w;
        e->pawns[1] = b;
    }
    TB_LARGEST = std::max(TB_LARGEST, e->num);
    addToHash(e, e->key);
    if (e->key2 != e->key)
        addToHash(e, e->key2);
}

void unmap(tb_map& m) {
    platform::unmapFile(m);
}

void resetEntry(tb_entry& e) {
    unmap(e.map);
    for (auto& file : e.wdl)
        for (auto& enc : file)
            enc = tb_encoding{};
    e.state.store(TB_UNLOADED, std::memory_order_relaxed);
    e.name.clear();
}

void releaseAll() {
    for (int i = 0; i < TBnum_piece; i++)
        resetEntry(TB_piece[i]);
    for (int i = 0; i < TBnum_pawn; i++)
        resetEntry(TB_pawn[i]);
    for (dtz_cache_slot& slot : DTZ_table) {
        if (slot.entry) {
            unmap(slot.entry->map);
            delete slot.entry;
        }
        slot = dtz_cache_slot{};
    }
    TBnum_piece = TBnum_pawn = 0;
    TB_LARGEST = 0;
    std::memset(static_cast<void*>(TB_hash), 0, sizeof TB_hash);
}

// ---------------------------------------------------------------------------------------
// Mapping.

u32 readU32(const u8* p) { return u32(p[0]) | u32(p[1]) << 8 | u32(p[2]) << 16 | u32(p[3]) << 24; }
u32 readU16(const u8* p) { return u32(p[0]) | u32(p[1]) << 8; }

// Maps name + ext from the first folder holding it and checks its magic number. Prints
// the reason on standard error when it fails.
bool openTable(const std::string& name, const char* ext, u32 magic, tb_map& out) {
    for (const std::string& dir : paths) {
        std::string file = dir + "/" + name + ext, systemError;
        switch (platform::mapFile(file, 8, out, systemError)) {
        case platform::mapStatus::ABSENT: continue;
        // A file whose size the system would not give is passed over like a missing one, but
        // not silently: the next folder may hold a good copy, and the user should know why
        // this one was not used.
        case platform::mapStatus::NO_STATUS:
            std::fprintf(stderr, "fstat: %s\n", systemError.c_str());
            continue;
        // Too short to hold even the header: nothing worth mapping.
        case platform::mapStatus::TOO_SHORT: std::fputs("Corrupted table.\n", stderr); return false;
        case platform::mapStatus::FAILED:
            std::fprintf(stderr, "Could not mmap() %s.\n", file.c_str());
            return false;
        case platform::mapStatus::MAPPED: break;
        }
        if (readU32(out.data) != magic) {
            std::fputs("Corrupted table.\n", stderr);
            unmap(out);
            return false;
        }
        return true;
    }
    std::fprintf(stderr, "Could not find %s%s\n", name.c_str(), ext);
    return false;
}

// A cursor over a mapped file that refuses to step past its end.
struct fileReader {
    const u8* begin;
    size_t size;
    size_t pos = 0;
    bool ok = true;

    const u8* take(u64 n) {
        if (!ok || n > size - pos) {
            ok = false;
            return nullptr;
        }
        const u8* p = begin + pos;
        pos += size_t(n);
        return p;
    }
    // Offsets inside the files are aligned relative to the start of the file.
    void align(size_t a) { pos = std::min(size, (pos + a - 1) & ~(a - 1)); }
};

// ---------------------------------------------------------------------------------------
// Header set-up.

// Reads the piece order of one table from its header bytes and computes its group sizes
// and index factors. shift selects the nibble: 0 for the first side to move, 4 for the second.
bool setupEncoding(const tb_entry& e, const u8* hdr, int file, int shift, tb_encoding& enc) {
    const int num = e.num;
    int order = (hdr[0] >> shift) & 15, order2 = 15, skip = 1;
    if (e.has_pawns) {
        skip = 1 + (e.pawns[1] > 0);
        if (e.pawns[1] > 0)
            order2 = (hdr[1] >> shift) & 15;
    }
    int counts[2][8] = {};
    for (int i = 0; i < num; i++) {
        int code = (hdr[i + skip] >> shift) & 15, type = code & 7;
        if (type < PAWN || type > KING)
            return false;
        enc.pieces[i] = u8(code);
        counts[code >> 3][type]++;
    }
    // The table must hold the material of its name, in either colour orientation.
    if (tb_material_key(counts, false) != e.key)
        return false;

    std::fill(enc.norm, enc.norm + TB_PIECES, 0);
    int first;
    if (!e.has_pawns) {
        first = enc.norm[0] = u8(e.enc_type == 0 ? 3 : 2);
    } else {
        int lead = enc.pieces[0];
        if ((lead & 7) != PAWN || counts[lead >> 3][PAWN] != e.pawns[0])
            return false;
        for (int i = 1; i < e.pawns[0] + e.pawns[1]; i++)
            if (enc.pieces[i] != (i < e.pawns[0] ? lead : lead ^ TB_BLACK))
                return false;
        enc.norm[0] = u8(e.pawns[0]);
        if (e.pawns[1])
            enc.norm[e.pawns[0]] = u8(e.pawns[1]);
        first = e.pawns[0] + e.pawns[1];
    }
    for (int i = first; i < num; i += enc.norm[i])
        for (int j = i; j < num && enc.pieces[j] == enc.pieces[i]; j++)
            enc.norm[i]++;

    u64 f = 1;
    bool seen = false, seen2 = order2 == 15;
    if (!e.has_pawns) {
        int n = 64 - enc.norm[0];
        for (int i = enc.norm[0], k = 0; i < num || k == order; k++) {
            if (k == order) {
                enc.factor[0] = f;
                f *= pivfac[e.enc_type];
                seen = true;
            } else {
                enc.factor[i] = f;
                f *= choose(n, enc.norm[i]);
                n -= enc.norm[i];
                i += enc.norm[i];
            }
        }
    } else {
        int i = enc.norm[0];
        if (order2 < 15)
            i += enc.norm[i];
        int n = 64 - i;
        for (int k = 0; i < num || k == order || k == order2; k++) {
            if (k > 2 * TB_PIECES)
                return false;
            if (k == order) {
                enc.factor[0] = f;
                f *= pfactor[enc.norm[0] - 1][file];
                seen = true;
            } else if (k == order2) {
                enc.factor[enc.norm[0]] = f;
                f *= choose(48 - enc.norm[0], enc.norm[enc.norm[0]]);
                seen2 = true;
            } else {
                enc.factor[i] = f;
                f *= choose(n, enc.norm[i]);
                n -= enc.norm[i];
                i += enc.norm[i];
            }
        }
    }
    enc.pairs.tb_size = f;
    return seen && seen2;
}

// Works out how many values each symbol stands for, rejecting references to missing
// symbols and cycles.
bool calcSymlen(pairs_data& d) {
    const int n = d.num_syms;
    d.symlen.assign(size_t(n), 0);
    std::vector<u8> state(size_t(n), 0);  // 0 new, 1 open, 2 done
    std::vector<int> stack;
    for (int root = 0; root < n; root++) {
        if (state[root])
            continue;
        stack.push_back(root);
        while (!stack.empty()) {
            int s = stack.back();
            const u8* w = d.sympat + 3 * s;
            int s1 = ((w[1] & 15) << 8) | w[0], s2 = (w[2] << 4) | (w[1] >> 4);
            if (s2 == 0xFFF) {
                state[s] = 2;
                stack.pop_back();
                continue;
            }
            if (s1 >= n || s2 >= n)
                return false;
            state[s] = 1;
            int next = -1;
            for (int c : {s1, s2}) {
                if (state[c] == 1)
                    return false;
                if (state[c] == 0) {
                    next = c;
                    break;
                }
            }
            if (next >= 0) {
                stack.push_back(next);
                continue;
            }
            u64 len = u64(d.symlen[s1]) + d.symlen[s2] + 1;
            if (len >= 65536)
                return false;
            d.symlen[s] = u32(len);
            state[s] = 2;
            stack.pop_back();
        }
    }
    return true;
}

// Reads the header of one compressed table: block and index geometry and the code.
bool setupPairs(fileReader& r, pairs_data& d, bool wdl) {
    const u8* h = r.take(2);
    if (!h)
        return false;
    d.present = true;
    d.flags = h[0];
    if (h[0] & 0x80) {
        d.constant = true;
        d.const_value = wdl ? h[1] : 0;
        return true;
    }
    const u8* g = r.take(8);
    if (!g)
        return false;
    d.block_size = h[1];
    d.idx_bits = g[0];
    d.real_num_blocks = readU32(g + 2);
    d.num_blocks = d.real_num_blocks + g[1];
    d.max_len = g[6];
    d.min_len = g[7];
    if (d.min_len < 1 || d.max_len < d.min_len || d.max_len > 32
        || d.idx_bits < 1 || d.idx_bits > 48 || d.block_size > 30
        || d.num_blocks < d.real_num_blocks)
        return false;
    int lengths = d.max_len - d.min_len + 1;
    d.offsets = r.take(2 * u64(lengths));
    const u8* ns = r.take(2);
    if (!ns)
        return false;
    d.num_syms = int(readU16(ns));
    d.sympat = r.take(3 * u64(d.num_syms));
    r.take(d.num_syms & 1);
    if (!r.ok || d.num_syms == 0 || d.num_syms > 4096 || !calcSymlen(d))
        return false;

    d.base.assign(size_t(lengths), 0);
    for (int i = lengths - 2; i >= 0; i--)
        d.base[i] = (d.base[i + 1] + readU16(d.offsets + 2 * i)
                     - readU16(d.offsets + 2 * i + 2)) / 2;
    for (int i = 0; i < lengths; i++)
        d.base[i] <<= 64 - (d.min_len + i);

    d.num_indices = (d.tb_size >> d.idx_bits) + ((d.tb_size & ((1ULL << d.idx_bits) - 1)) != 0);
    return true;
}

// The three per-table areas that follow all the headers of a file.
bool setupIndexTable(fileReader& r, pairs_data& d) {
    if (!d.constant)
        d.index_table = r.take(6 * d.num_indices);
    return r.ok;
}
bool setupSizeTable(fileReader& r, pairs_data& d) {
    if (!d.constant)
        d.size_table = r.take(2 * u64(d.num_blocks));
    return r.ok;
}
bool setupData(fileReader& r, pairs_data& d) {
    r.align(64);
    if (!d.constant)
        d.data = r.take(u64(d.real_num_blocks) << d.block_size);
    return r.ok;
}

int headerLength(const tb_entry& e) { return e.num + (e.has_pawns ? 1 + (e.pawns[1] > 0) : 1); }

bool setupWdl(tb_entry& e) {
    fileReader r{e.map.data, e.map.size};
    const u8* head = r.take(5);
    if (!head || bool(head[4] & 2) != e.has_pawns)
        return false;
    e.split = head[4] & 1;
    e.files = e.has_pawns ? 4 : 1;
    const int sides = e.split ? 2 : 1;
    for (int f = 0; f < e.files; f++) {
        const u8* hdr = r.take(u64(headerLength(e)));
        if (!hdr || !setupEncoding(e, hdr, f, 0, e.wdl[f][0])
            || !setupEncoding(e, hdr, f, 4, e.wdl[f][1]))
            return false;
    }
    r.align(2);
    for (int f = 0; f < e.files; f++)
        for (int s = 0; s < sides; s++)
            if (!setupPairs(r, e.wdl[f][s].pairs, true))
                return false;
    for (int f = 0; f < e.files; f++)
        for (int s = 0; s < sides; s++)
            setupIndexTable(r, e.wdl[f][s].pairs);
    for (int f = 0; f < e.files; f++)
        for (int s = 0; s < sides; s++)
            setupSizeTable(r, e.wdl[f][s].pairs);
    for (int f = 0; f < e.files; f++)
        for (int s = 0; s < sides; s++)
            setupData(r, e.wdl[f][s].pairs);
    return r.ok;
}

bool setupDtz(dtz_entry& z) {
    const tb_entry& e = *z.meta;
    fileReader r{z.map.data, z.map.size};
    const u8* head = r.take(5);
    if (!head || bool(head[4] & 2) != e.has_pawns)
        return false;
    z.files = e.has_pawns ? 4 : 1;
    for (int f = 0; f < z.files; f++) {
        const u8* hdr = r.take(u64(headerLength(e)));
        if (!hdr || !setupEncoding(e, hdr, f, 0, z.enc[f]))
            return false;
    }
    r.align(2);
    for (int f = 0; f < z.files; f++)
        if (!setupPairs(r, z.enc[f].pairs, false))
            return false;
    const size_t mapStart = r.pos;
    z.maps = r.begin + mapStart;
    for (int f = 0; f < z.files; f++) {
        if (!(z.enc[f].pairs.flags & 2))
            continue;
        for (int i = 0; i < 4; i++) {
            const u8* len = r.take(1);
            if (!len || !r.take(*len))
                return false;
            z.map_idx[f][i] = u32(len + 1 - z.maps);
            z.map_len[f][i] = *len;
        }
    }
    r.align(2);
    for (int f = 0; f < z.files; f++)
        setupIndexTable(r, z.enc[f].pairs);
    for (int f = 0; f < z.files; f++)
        setupSizeTable(r, z.enc[f].pairs);
    for (int f = 0; f < z.files; f++)
        setupData(r, z.enc[f].pairs);
    return r.ok;
}

}  // namespace

// ---------------------------------------------------------------------------------------

u64 tb_material_key(const int counts[2][8], bool mirror) {
    u64 key = 0;
    for (int c = 0; c < 2; c++)
        for (int t = PAWN; t <= KING; t++) {
            int n = std::min(counts[mirror ? c ^ 1 : c][t], 16);
            for (int i = 0; i < n; i++)
                key ^= materialCodes[(c * 8 + t) * 16 + i];
        }
    return key;
}

tb_entry* tb_lookup(u64 key) {
    const tb_hash_entry* bucket = TB_hash[key >> (64 - TBHASHBITS)];
    for (int i = 0; i < HSHMAX && bucket[i].ptr; i++)
        if (bucket[i].key == key)
            return bucket[i].ptr;
    return nullptr;
}

void init_tablebases(const std::string& path) {
    if (!indicesReady)
        initIndices();
    releaseAll();
    paths.clear();
    if (path.empty() || path == "<empty>")
        return;

    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(platform::PATH_LIST_SEPARATOR, start);
        if (end == std::string::npos)
            end = path.size();
        // An empty element would mean the root folder; nobody means that.
        if (end > start)
            paths.push_back(path.substr(start, end - start));
        start = end + 1;
    }

    static const char letters[] = "KQRBNP";
    char name[16];
    auto tryName = [&](const char* fmt, auto... c) {
        std::snprintf(name, sizeof name, fmt, letters[c]...);
        initTb(name);
    };
    for (int i = 1; i < 6; i++)
        tryName("K%cvK", i);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            tryName("K%cvK%c", i, j);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            tryName("K%c%cvK", i, j);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            for (int k = 1; k < 6; k++)
                tryName("K%c%cvK%c", i, j, k);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            for (int k = j; k < 6; k++)
                tryName("K%c%c%cvK", i, j, k);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            for (int k = i; k < 6; k++)
                for (int l = (i == k) ? j : k; l < 6; l++)
                    tryName("K%c%cvK%c%c", i, j, k, l);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            for (int k = j; k < 6; k++)
                for (int l = 1; l < 6; l++)
                    tryName("K%c%c%cvK%c", i, j, k, l);
    for (int i = 1; i < 6; i++)
        for (int j = i; j < 6; j++)
            for (int k = j; k < 6; k++)
                for (int l = k; l < 6; l++)
                    tryName("K%c%c%c%cvK", i, j, k, l);

    printText("Found " + std::to_string(TBnum_piece + TBnum_pawn) + " tablebases.\n");
}

bool tb_load_wdl(tb_entry* e) {
    u8 s = e->state.load(std::memory_order_acquire);
    if (s != TB_UNLOADED)
        return s == TB_READY;
    std::lock_guard<std::mutex> lock(TB_MUTEX);
    s = e->state.load(std::memory_order_relaxed);
    if (s != TB_UNLOADED)
        return s == TB_READY;
    bool ok = openTable(e->name, ".rtbw", WDL_MAGIC, e->map);
    if (ok && !setupWdl(*e)) {
        std::fputs("Corrupted table.\n", stderr);
        unmap(e->map);
        ok = false;
    }
    e->state.store(ok ? TB_READY : TB_FAILED, std::memory_order_release);
    return ok;
}

const dtz_entry* tb_acquire_dtz(const tb_entry* e) {
    for (int i = 0; i < DTZ_ENTRIES && DTZ_table[i].entry; i++)
        if (DTZ_table[i].key1 == e->key) {
            std::rotate(DTZ_table, DTZ_table + i, DTZ_table + i + 1);
            return DTZ_table[0].entry;
        }
    dtz_cache_slot& last = DTZ_table[DTZ_ENTRIES - 1];
    if (last.entry) {
        unmap(last.entry->map);
        delete last.entry;
        last = dtz_cache_slot{};
    }
    std::rotate(DTZ_table, DTZ_table + DTZ_ENTRIES - 1, DTZ_table + DTZ_ENTRIES);

    auto* z = new dtz_entry;
    z->meta = e;
    z->ok = openTable(e->name, ".rtbz", DTZ_MAGIC, z->map);
    if (z->ok && !setupDtz(*z)) {
        std::fputs("Corrupted table.\n", stderr);
        unmap(z->map);
        z->ok = false;
    }
    DTZ_table[0] = {e->key, e->key2, z};
    return z;
}

// ---------------------------------------------------------------------------------------
// Index computation.

// Index of a group of like pieces at sq[i .. i + count): their squares, sorted, each
// counted past the squares of the pieces placed before the group (less `offset`).
u64 group_index(int* sq, int i, int count, int offset) {
    std::sort(sq + i, sq + i + count);
    u64 s = 0;
    for (int m = i; m < i + count; m++) {
        int below = 0;
        for (int k = 0; k < i; k++)
            below += sq[m] > sq[k];
        s += binomial[m - i][sq[m] - below - offset];
    }
    return s;
}

u64 encode_piece(const tb_encoding& enc, int enc_type, int num, int* sq) {
    if (sq[0] & 4)
        for (int i = 0; i < num; i++)
            sq[i] ^= 7;
    if (sq[0] & 32)
        for (int i = 0; i < num; i++)
            sq[i] ^= 56;
    const int lead = enc_type == 0 ? 3 : 2;
    int i = 0;
    while (i < lead && !offdiag[sq[i]])
        i++;
    if (i < lead && offdiag[sq[i]] > 0)
        for (int k = 0; k < num; k++)
            sq[k] = flipdiag[sq[k]];

    u64 idx;
    if (enc_type == 0) {
        int a = sq[1] > sq[0];
        int b = (sq[2] > sq[0]) + (sq[2] > sq[1]);
        if (offdiag[sq[0]])
            idx = u64(triangle[sq[0]]) * 63 * 62 + u64(sq[1] - a) * 62 + u64(sq[2] - b);
        else if (offdiag[sq[1]])
            idx = 6 * 63 * 62 + u64(diagIdx[sq[0]]) * 28 * 62 + u64(lowerIdx[sq[1]]) * 62
                + u64(sq[2] - b);
        else if (offdiag[sq[2]])
            idx = 6 * 63 * 62 + 4 * 28 * 62 + u64(diagIdx[sq[0]]) * 7 * 28
                + u64(diagIdx[sq[1]] - a) * 28 + u64(lowerIdx[sq[2]]);
        else
            idx = 6 * 63 * 62 + 4 * 28 * 62 + 4 * 7 * 28 + u64(diagIdx[sq[0]]) * 7 * 6
                + u64(diagIdx[sq[1]] - a) * 6 + u64(diagIdx[sq[2]] - b);
    } else {
        int kk = KK_idx[triangle[sq[0]]][sq[1]];
        if (kk < 0)
            return ~0ULL;
        idx = u64(kk);
    }
    idx *= enc.factor[0];

    for (i = lead; i < num; i += enc.norm[i])
        idx += group_index(sq, i, enc.norm[i], 0) * enc.factor[i];
    return idx;
}

int pawn_file(const int pawns[2], int* sq) {
    for (int i = 1; i < pawns[0]; i++)
        if (flap[sq[0]] > flap[sq[i]])
            std::swap(sq[0], sq[i]);
    int f = fileOf(sq[0]);
    return f > 3 ? 7 - f : f;
}

u64 encode_pawn(const tb_encoding& enc, const int pawns[2], int num, int* sq) {
    if (sq[0] & 4)
        for (int i = 0; i < num; i++)
            sq[i] ^= 7;
    const int lead = pawns[0];
    std::sort(sq + 1, sq + lead, [](int a, int b) { return ptwist[a] > ptwist[b]; });
    const int t = lead - 1;
    u64 idx = pawnidx[t][flap[sq[0]]];
    for (int i = t; i > 0; i--)
        idx += binomial[t - i][ptwist[sq[i]]];
    idx *= enc.factor[0];

    int i = lead;
    if (pawns[1]) {
        // The second pawn group never stands on the first rank: its squares start at 8.
        idx += group_index(sq, i, pawns[1], 8) * enc.factor[i];
        i += pawns[1];
    }
    for (; i < num; i += enc.norm[i])
        idx += group_index(sq, i, enc.norm[i], 0) * enc.factor[i];
    return idx;
}

// ---------------------------------------------------------------------------------------
// Decompression: find the block that holds the entry through the sparse main index and
// the block sizes, then walk the block's canonical codes symbol by symbol and finally
// descend the chosen symbol's pair tree to the single value.

int decompress_pairs(const pairs_data& d, u64 idx) {
    if (!d.present)
        return -1;
    if (d.constant)
        return d.const_value;
    if (idx >= d.tb_size)
        return -1;

    const u64 mainIdx = idx >> d.idx_bits;
    i64 litIdx = i64(idx & ((1ULL << d.idx_bits) - 1)) - (i64(1) << (d.idx_bits - 1));
    const u8* entry = d.index_table + 6 * mainIdx;
    u32 block = readU32(entry);
    litIdx += readU16(entry + 4);
    if (block >= d.num_blocks)
        return -1;
    auto blockLen = [&](u32 b) { return i64(readU16(d.size_table + 2 * u64(b))); };
    if (litIdx < 0) {
        do {
            if (block == 0)
                return -1;
            block--;
            litIdx += blockLen(block) + 1;
        } while (litIdx < 0);
    } else {
        while (litIdx > blockLen(block)) {
            litIdx -= blockLen(block) + 1;
            if (++block >= d.num_blocks)
                return -1;
        }
    }
    if (block >= d.real_num_blocks)
        return -1;

    // Bits beyond the block read as zero: a valid block never needs them, and they only
    // fill the look-ahead of the code register.
    const u8* bytes = d.data + (u64(block) << d.block_size);
    const size_t size = size_t(1) << d.block_size;
    auto byteAt = [&](size_t k) { return k < size ? u64(bytes[k]) : 0; };
    u64 code = 0;
    for (size_t k = 0; k < 8; k++)
        code = code << 8 | byteAt(k);
    size_t next = 8;
    int bitcnt = 0;  // bits of the register already consumed and not yet refilled

    const int m = d.min_len;
    int sym;
    for (;;) {
        int l = m;
        while (code < d.base[l - m])
            if (++l > d.max_len)
                return -1;
        sym = int(readU16(d.offsets + 2 * (l - m))) + int((code - d.base[l - m]) >> (64 - l));
        if (sym >= d.num_syms)
            return -1;
        if (litIdx < i64(d.symlen[sym]) + 1)
            break;
        litIdx -= i64(d.symlen[sym]) + 1;
        code <<= l;
        bitcnt += l;
        if (bitcnt >= 32) {
            bitcnt -= 32;
            u64 word = byteAt(next) << 24 | byteAt(next + 1) << 16 | byteAt(next + 2) << 8
                     | byteAt(next + 3);
            code |= word << bitcnt;
            next += 4;
            if (next > size + 8)
                return -1;
        }
    }

    while (d.symlen[sym] != 0) {
        const u8* w = d.sympat + 3 * sym;
        int s1 = ((w[1] & 15) << 8) | w[0];
        if (litIdx < i64(d.symlen[s1]) + 1) {
            sym = s1;
        } else {
            litIdx -= i64(d.symlen[s1]) + 1;
            sym = (w[2] << 4) | (w[1] >> 4);
        }
    }
    return d.sympat[3 * sym];
}
