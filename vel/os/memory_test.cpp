// Contract of named memory.
#include <vel/os/memory.h>

#include <cstring>
#include <vel/os/linux/testing/child_process.h>
#include <vel/os/linux/testing/object_name.h>
#include <vel/testing/os_fixture.h>

namespace vel::os::testing {
namespace {

using vel::testing::ChildProcess;
using vel::testing::ObjectName;
using vel::testing::Talk;

// An opened block, closed at the end of its scope.
struct Block {
    Block(const ObjectName& name, uint64_t wanted) {
        void* address = nullptr;
        code = open_mapping(name.c_str(), wanted, handle, address, size);
        text = static_cast<char*>(address);
    }
    ~Block() { close_handle(handle); }
    uint32_t code;
    void* handle = nullptr;
    char* text = nullptr;
    uint64_t size = 0;
};

using Mapping = OsTest;

TEST_F(Mapping, IsSharedByItsOpenersAndVanishesWithTheLastHoweverThatOneEnded) {
    const uint64_t page = page_size();
    const ObjectName name;
    for (int round = 0; round < 20; ++round) {
        ChildProcess child([&](Talk& parent) {
            Block block(name, 2 * page - 1);
            if (block.size != 2 * page || std::string(block.text, block.size) != std::string(block.size, '\0'))
                return 1;
            std::strcpy(block.text + page, "from the child");
            parent.tell();
            return parent.hear() ? std::strcmp(block.text, "from the parent") : 2;
        });
        ASSERT_TRUE(child.talk().hear()) << "old content in round " << round;
        {
            Block block(name, 5 * page);
            ASSERT_EQ(block.size, 2 * page) << "a block that is there keeps its size";
            EXPECT_STREQ(block.text + page, "from the child");
            std::strcpy(block.text, "from the parent");
            share_handle(block.handle);
            close_handle(block.handle);
            if (round % 2) child.kill();
            EXPECT_STREQ(block.text, "from the parent") << "one share and this process hold it still";
        }
        child.talk().tell();
        ASSERT_EQ(child.wait(), 0); // or it was killed
    }
}

} // namespace
} // namespace vel::os::testing
