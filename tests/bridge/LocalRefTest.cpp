// The owners of JNI references: LocalRef deletes what it holds on every path
// and nothing else; GlobalRef makes and deletes only when asked.
#include <gtest/gtest.h>

#include <utility>

#include "bridge/LocalRef.h"
#include "support/BridgeFixture.h"

using jnitest::BridgeFixture;

namespace {

class LocalRefTest : public BridgeFixture {
protected:
    jstring NewText() { return Env()->NewStringUTF("text"); }
};

TEST_F(LocalRefTest, DeletesWhatItHoldsWhenItEnds) {
    { const LocalRef<jstring> text(Env(), NewText()); }
    EXPECT_EQ(Interposer().LocalRefsMade(), 1);
    EXPECT_EQ(Interposer().LocalRefsDeleted(), 1);
}

TEST_F(LocalRefTest, HoldingNothingDeletesNothing) {
    { const LocalRef<jstring> none(Env(), nullptr); }
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), 0u);
}

TEST_F(LocalRefTest, ResetToTheReferenceItHoldsChangesNothing) {
    LocalRef<jstring> text(Env(), NewText());
    const jstring held = text.get();
    text.reset(held);
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), 0u);
    EXPECT_EQ(text.get(), held);
    text.reset();
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), 1u);
    EXPECT_FALSE(text);
}

TEST_F(LocalRefTest, ResetToAnotherReferenceDeletesTheOldOne) {
    LocalRef<jstring> text(Env(), NewText());
    const jstring second = NewText();
    text.reset(second);
    EXPECT_EQ(Interposer().LocalRefsDeleted(), 1);
    EXPECT_EQ(text.get(), second);
}

TEST_F(LocalRefTest, ReleaseHandsTheReferenceOverWithoutDeletingIt) {
    jstring released = nullptr;
    {
        LocalRef<jstring> text(Env(), NewText());
        released = text.release();
        EXPECT_FALSE(text);
    }
    EXPECT_EQ(Interposer().CountOf("DeleteLocalRef"), 0u);
    Env()->DeleteLocalRef(released);
}

TEST_F(LocalRefTest, MovingHandsOwnershipOnAndDeletesOnce) {
    LocalRef<jstring> first(Env(), NewText());
    LocalRef<jstring> second(Env(), NewText());
    second = std::move(first);  // second's own reference is deleted
    EXPECT_EQ(Interposer().LocalRefsDeleted(), 1);
    { const LocalRef<jstring> third(std::move(second)); }
    EXPECT_EQ(Interposer().LocalRefsDeleted(), 2);
    EXPECT_EQ(Interposer().LocalRefsLeft(), 0);
}

TEST_F(LocalRefTest, GlobalRefTouchesJniOnlyWhenAsked) {
    const LocalRef<jstring> text(Env(), NewText());
    jobject leftToTheJvm = nullptr;
    {
        GlobalRef global;
        EXPECT_FALSE(global);
        global.Hold(Env(), text.get());
        ASSERT_TRUE(global);
        EXPECT_TRUE(Env()->IsSameObject(global.get(), text.get()));
        const jobject first = global.get();
        // Holding another reference keeps the first one alive (it is not deleted).
        global.Hold(Env(), text.get());
        EXPECT_NE(global.get(), first);
        EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 0u);
        Env()->DeleteGlobalRef(first);
        global.Delete(Env());
        EXPECT_FALSE(global);
        global.Delete(Env());  // nothing held: nothing deleted
        EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 2u);
        global.Hold(Env(), text.get());
        leftToTheJvm = global.get();
    }
    // A holder that ends with a reference leaves it to the JVM.
    EXPECT_EQ(Interposer().CountOf("NewGlobalRef"), 3u);
    EXPECT_EQ(Interposer().CountOf("DeleteGlobalRef"), 2u);
    Env()->DeleteGlobalRef(leftToTheJvm);
}

}  // namespace
