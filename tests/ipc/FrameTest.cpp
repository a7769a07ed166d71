#include <vector>

#include "IpcTest.h"

namespace {

using Messages = std::vector<std::string>;

const std::string MARK(reinterpret_cast<const char*>(ky_frame::MARK), sizeof ky_frame::MARK);
const std::string LEAD = MARK.substr(0, ky_frame::LEAD);

/// Messages that hold what frames are made of.
const Messages AWKWARD = {"", MARK, LEAD + LEAD + MARK[0], "a" + LEAD + '\0' + MARK + MARK + "b",
                          std::string(9, MARK[0]) + LEAD};

struct Reader {
    Messages Feed(const std::string& piece) {
        const auto* const bytes = reinterpret_cast<const unsigned char*>(piece.data());
        for (size_t taken = 0; taken < piece.size();) {
            taken += decoder.Feed(bytes + taken, piece.size() - taken);
            if (decoder.IsWhole()) messages.push_back(BytesOf(decoder.Message()));
        }
        return messages;
    }

    KyIpcFrameDecoder decoder;
    Messages messages;
};

TEST(Frames, ComeOutOfPiecesOfAnySize) {
    std::string stream;
    for (const std::string& message : AWKWARD)
        stream += FrameOf(message);
    for (size_t size = 1; size <= stream.size(); ++size) {
        Reader reader;
        for (size_t place = 0; place < stream.size(); place += size)
            reader.Feed(stream.substr(place, size));
        ASSERT_EQ(reader.messages, AWKWARD) << size;
        ASSERT_EQ(reader.decoder.TakeSkipped(), 0U) << size;
    }
}

TEST(Frames, ATornOrDamagedOneCostsOnlyItself) {
    for (const std::string& message : AWKWARD) {
        const std::string frame = FrameOf(message);
        for (size_t place = 0; place < frame.size(); ++place) {
            Reader reader;
            ASSERT_EQ(reader.Feed(FrameOf("before") + frame.substr(0, place) + FrameOf("next")),
                      (Messages{"before", "next"}))
                << place;
            ASSERT_EQ(reader.decoder.TakeSkipped(), place);
            for (int change = 1; change < 256; ++change) {
                std::string bytes = frame;
                bytes[place] = static_cast<char>(bytes[place] ^ change);
                const Messages messages = Reader().Feed(bytes + FrameOf("next"));
                ASSERT_TRUE(messages.size() == 1 || messages.size() == 2) << place << ' ' << change;
                ASSERT_EQ(messages.back(), "next") << place << ' ' << change;
            }
        }
    }
}

TEST(Frames, LengthLimits) {
    constexpr size_t MOST = ky_frame::MOST_BODY;
    EXPECT_EQ(Reader().Feed(FrameOf(std::string(MOST, 'x'))), Messages{std::string(MOST, 'x')});
    for (const char* length : {"\x01\x00\x10\x00", "\xFF\xFF\xFF\x7F", "\xFF\xFF\xFF\xFF"}) {
        Reader reader;
        reader.Feed(MARK + std::string(length, 4) + "body");
        EXPECT_EQ(reader.decoder.Message().GetLength(), 0) << "taken for the body";
        EXPECT_EQ(reader.Feed(FrameOf("next")), Messages{"next"});
    }
}

}  // namespace
