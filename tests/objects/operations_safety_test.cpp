// Data safety: copies of every type byte-identical up to several MiB, a
// target never emptied before its exclusive lock is held, and idle blocks
// written by one process read back identically by another.

#include "contents_fixture.h"

namespace objects_test {
namespace {

class Safety : public Store {};

TEST_F(Safety, CopiesOfEveryTypeAreByteIdentical) {
    const size_t sizes[] = {0, 1, 4095, 4096, 4097, 65537, 3 * 1024 * 1024 + 123};
    unsigned seed = 1;
    for (size_t size : sizes) {
        for (unsigned type : {0u, 3u, 4u}) {
            const std::string s = "s" + std::to_string(type) + "_" + std::to_string(size);
            const std::string t = "t" + std::to_string(type) + "_" + std::to_string(size);
            make_object(os(s), type);
            const std::string body = random_bytes(size, ++seed);
            const std::string index = random_bytes(size / 3 + 5, ++seed);
            const std::string file = type == 0 ? os(s) : os(s) + "/.body";
            qor_test::write_file(file, body);
            if (type == 4) qor_test::write_file(os(s) + "/.index", index);
            ASSERT_EQ(QOR_copy_object(qor(s).c_str(), type, qor(t).c_str()), 0);
            const std::string copied = type == 0 ? os(t) : os(t) + "/.body";
            EXPECT_TRUE(qor_test::read_file(copied) == body) << type << " " << size;
            if (type == 4) {
                EXPECT_TRUE(qor_test::read_file(os(t) + "/.index") == index);
            }
            // Copying again over a larger target leaves no old tail.
            const std::string bigger = random_bytes(size + 10000, ++seed);
            qor_test::write_file(copied, bigger);
            ASSERT_EQ(QOR_copy_object(qor(s).c_str(), type, qor(t).c_str()),
                      QOR_E_TARGET_EXISTS);
            EXPECT_TRUE(qor_test::read_file(copied) == body) << type << " " << size;
        }
    }
}

TEST_F(Safety, CopyWaitsForNoOneAndNeverEmptiesALockedTarget) {
    make_object(os("s"), 4);
    make_object(os("t"), 4);
    qor_test::write_file(os("s/.body"), random_bytes(200000, 11));
    const std::string precious = random_bytes(300000, 12);
    qor_test::write_file(os("t/.body"), precious);
    // A reader in another process keeps a shared lock on the target body
    // through the library, as a reader of the object would.
    const std::string target = qor("t");
    Partner reader([&](Partner &p) {
        QOR_contents_record *rec = nullptr;
        if (QOR_open_contents(target.c_str(), 4, 0x01, 1, &rec) != 0) return 1;
        p.tell('L');
        p.hear();
        QOR_close_contents(rec);
        return 0;
    });
    ASSERT_EQ(reader.receive(), 'L');
    MessageLog log;
    EXPECT_EQ(QOR_copy_object(qor("s").c_str(), 4, target.c_str()),
              QOR_E_LOCKED);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_TRUE(qor_test::read_file(os("t/.body")) == precious);
    reader.send('x');
    EXPECT_EQ(reader.finish(), 0);
    EXPECT_EQ(QOR_copy_object(qor("s").c_str(), 4, target.c_str()),
              QOR_E_TARGET_EXISTS);
    EXPECT_TRUE(qor_test::read_file(os("t/.body")) ==
                qor_test::read_file(os("s/.body")));
}

TEST_F(Safety, IdleBlocksWrittenByOneProcessReadBackInAnother) {
    ASSERT_EQ(QOR_create_object(qor("i").c_str(), 4), 0);
    // The plan: blocks of 1 to 70000 bytes at random offsets below 4 MiB,
    // some overlapping; the model applies them in order.
    struct Block {
        int64_t offset;
        std::string data;
    };
    std::vector<Block> plan;
    std::mt19937_64 gen(99);
    std::string model;
    for (int i = 0; i < 60; ++i) {
        Block b;
        b.offset = static_cast<int64_t>(gen() % (4 << 20));
        b.data = random_bytes(1 + gen() % 70000, static_cast<unsigned>(i + 100));
        const size_t end = static_cast<size_t>(b.offset) + b.data.size();
        if (model.size() < end) model.resize(end, '\0');
        model.replace(static_cast<size_t>(b.offset), b.data.size(), b.data);
        plan.push_back(std::move(b));
    }
    const std::string path = qor("i");
    Partner writer([&](Partner &p) {
        QOR_contents_record *body = nullptr, *index = nullptr;
        if (QOR_open_contents(path.c_str(), 4, 0x04, 3, &body) != 0) return 1;
        if (QOR_open_idle_index(path.c_str(), 0x04, 3, &index) != 0) return 2;
        p.tell('L');
        for (size_t k = 0; k < plan.size(); ++k) {
            const Block &b = plan[k];
            if (QOR_write_idle_block(body, b.offset, b.data.data(),
                                     static_cast<int>(b.data.size())) != 0) {
                return 3;
            }
            const int64_t entry[2] = {b.offset, static_cast<int64_t>(b.data.size())};
            if (QOR_write_idle_block(index, static_cast<int64_t>(k) * 16, entry,
                                     16) != 0) {
                return 4;
            }
        }
        QOR_close_contents(index);
        QOR_close_contents(body);
        return 0;
    });
    ASSERT_EQ(writer.receive(), 'L');
    // The reader waits for the writer's exclusive lock to go.
    MessageLog log;
    QOR_contents_record *body = nullptr, *index = nullptr;
    ASSERT_EQ(QOR_open_contents(path.c_str(), 4, 0x01, 2, &body), 0);
    ASSERT_EQ(QOR_open_idle_index(path.c_str(), 0x01, 2, &index), 0);
    EXPECT_EQ(writer.finish(), 0);
    uint64_t size = 0;
    ASSERT_EQ(QOR_read_open_contents_size(body, &size), 0);
    ASSERT_EQ(size, model.size());
    for (size_t k = 0; k < plan.size(); ++k) {
        int64_t entry[2] = {};
        ASSERT_EQ(QOR_read_idle_block(index, static_cast<int64_t>(k) * 16,
                                      entry, 16), 0);
        ASSERT_EQ(entry[0], plan[k].offset);
        std::string got(static_cast<size_t>(entry[1]), '\0');
        ASSERT_EQ(QOR_read_idle_block(body, entry[0], got.data(),
                                      static_cast<int>(entry[1])), 0);
        EXPECT_TRUE(got == model.substr(static_cast<size_t>(entry[0]), got.size()))
            << k;
    }
    std::string all(model.size(), '\0');
    ASSERT_EQ(QOR_read_idle_block(body, 0, all.data(), static_cast<int>(all.size())), 0);
    EXPECT_TRUE(all == model);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(QOR_close_contents(index), 0);
    EXPECT_EQ(QOR_close_contents(body), 0);
}

}  // namespace
}  // namespace objects_test
