// Helpers shared by the tests: table set-up, positions with their own buffers, data paths.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "board/bitboards.h"
#include "board/position.h"
#include "board/zobrist.h"

// Sanitized builds run several times slower: randomised tests do this much less work there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int TEST_WORK_DIVISOR = 4;
#else
constexpr int TEST_WORK_DIVISOR = 1;
#endif

inline void initTables() {
    initBitboardConstants();
    initHashCodeTables();
}

// A position that owns its move buffer.
struct testPosition {
    std::unique_ptr<positionStruct> pos = std::make_unique<positionStruct>();
    std::vector<moveStruct> buffer = std::vector<moveStruct>(MOVE_BUFFER);

    explicit testPosition(const std::string& fen = fenStartPos) {
        initTables();
        set(fen);
    }
    void set(const std::string& fen) {
        std::string error;
        EXPECT_TRUE(setPosition(fen, pos.get(), &error)) << fen << ": " << error;
        pos->bindMoveBuffer(buffer.data());
    }
    positionStruct* operator->() { return pos.get(); }
    positionStruct* get() { return pos.get(); }
};

inline std::string dataPath(const std::string& rel) { return std::string(QUORVANE_DATA_DIR) + "/" + rel; }

#define REQUIRE_DATA(rel)                                                                          \
    do {                                                                                           \
        if (!std::filesystem::exists(dataPath(rel)))                                               \
            GTEST_SKIP() << "test data missing: " << dataPath(rel)                                 \
                         << " (set QUORVANE_DATA_DIR to the shared data folder)";                  \
    } while (0)
