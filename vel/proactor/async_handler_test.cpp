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

TYPED_TEST(AsyncHandler, LivesUntilItsLastReference) {
    auto* handler = new Hooked<VEL_Async_Handler_Impl<TypeParam>>;
    EXPECT_EQ(handler->addref(), 2);
    EXPECT_EQ(handler->release(), 1);
    EXPECT_EQ(live_handlers, 1);
    EXPECT_EQ(handler->release(), 0);
    EXPECT_EQ(live_handlers, 0);
}

TYPED_TEST(AsyncHandler, DefaultsTakeOperationsAway) {
    Ref<Hooked<VEL_Async_Handler_Impl<TypeParam>>> handler(new Hooked<VEL_Async_Handler_Impl<TypeParam>>);
    VEL_Async_Handler* h = handler.get();
    EXPECT_EQ(h->handle_accept(new VEL_Async_SOCK_Accept(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_connect(new VEL_Async_SOCK_Connect(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_input(new VEL_Async_SOCK_Read_Stream(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_output(new VEL_Async_SOCK_Write_Stream(nullptr, 1, VEL_INVALID_HANDLE, h), 5), 0);
    EXPECT_EQ(h->handle_signal(nullptr), 0);
    uint32_t interval = 7;
    EXPECT_EQ(h->handle_timeout(1, interval, nullptr), 0);
    EXPECT_EQ(h->handle_close(1, nullptr, nullptr), 0);
    EXPECT_EQ(h->close_handle(), 0);
    EXPECT_EQ(interval, 7u);
    EXPECT_EQ(h->addref(), 2) << "every operation has given its reference back";
    h->release();
}

TYPED_TEST(AsyncHandler, AnswersMessagesItDoesNotKnow) {
    Ref<Hooked<VEL_Async_Handler_Impl<TypeParam>>> handler(new Hooked<VEL_Async_Handler_Impl<TypeParam>>);
    VEL_Message_Block message(new Note(1), true);
    EXPECT_EQ(handler->handle_signal(new VEL_Async_Post_Operation(nullptr, 1, handler.get(), message)), 0);
    EXPECT_EQ(message.wait(0), -1);
    EXPECT_EQ(message.error_code(), error::not_implemented);
}

} // namespace
} // namespace vel::test
