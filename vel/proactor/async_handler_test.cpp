// Reference counts and the defaults of the handler base.
#include <vel/testing/proactor_fixture.h>

#include <vel/os/error_codes.h>
#include <vel/proactor/async_stream_io.h>

namespace vel::test {
namespace {

template <class Counter>
class AsyncHandler : public ::testing::Test {};

using Counters = ::testing::Types<VEL_Reference_Counter, VEL_Reference_Counter_Sync, VEL_Reference_Counter_Global_Sync>;
TYPED_TEST_SUITE(AsyncHandler, Counters);

TYPED_TEST(AsyncHandler, DefaultsTakeOperationsAway) {
    Ref<Hooked<VEL_Async_Handler_Impl<TypeParam>>> handler(new Hooked<VEL_Async_Handler_Impl<TypeParam>>);
    VEL_Async_Handler* h = handler.get();
    EXPECT_EQ(h->handle_accept(new VEL_Async_SOCK_Accept(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_connect(new VEL_Async_SOCK_Connect(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_input(new VEL_Async_SOCK_Read_Stream(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_output(new VEL_Async_SOCK_Write_Stream(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_signal(nullptr), 0);
    EXPECT_EQ(handler->references(), 1) << "every operation has given its reference back";
    VEL_Message_Block message(new Note(1), true);
    EXPECT_EQ(h->handle_signal(new VEL_Async_Post_Operation(nullptr, 1, h, message)), 0);
    EXPECT_EQ(message.wait(0), -1);
    EXPECT_EQ(message.error_code(), error::not_implemented);
    EXPECT_EQ(live_handlers, 1);
    handler.reset();
    EXPECT_EQ(live_handlers, 0);
}

} // namespace
} // namespace vel::test
