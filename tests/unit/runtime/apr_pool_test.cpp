// apr_pool_test.cpp: the start and end of the APR library, and which pools are made, borrowed, tagged and destroyed.
//
// This file replaces some calls of APR for its test program, to keep books about them and to let them fail. What they
// do is APR's own.

#include <apr_allocator.h>
#include <apr_errno.h>
#include <apr_general.h>
#include <apr_pools.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "runtime/apr_pool.h"
#include "unit/child_status.h"

namespace {

// Books is what APR was called with. It is used before this file's objects are made, so it needs no making itself.
struct Books {
    int initialized;
    int terminated;
    int limited;
    apr_size_t limit;
    apr_allocator_t* limitedAllocator;
    int created;
    apr_pool_t* createdPool;
    apr_pool_t* createdParent;
    bool createdPlainly;
    int destroyed;
    apr_pool_t* destroyedPool;
    int tagged;
    apr_pool_t* taggedPool;
    const char* tag;
    bool failInitialize;
    bool failCreate;
    bool failCreateOnceInitialized;  // APR makes a pool itself as it is initialised
};

constinit Books gs_oBooks{};

template <class Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" apr_status_t apr_initialize() {
    gs_oBooks.initialized++;
    if (gs_oBooks.failInitialize)
        return APR_ENOMEM;
    const apr_status_t status = realCall<decltype(apr_initialize)>("apr_initialize")();
    gs_oBooks.failCreate |= gs_oBooks.failCreateOnceInitialized;
    return status;
}

extern "C" void apr_terminate() {
    gs_oBooks.terminated++;
    realCall<decltype(apr_terminate)>("apr_terminate")();
}

extern "C" void apr_allocator_max_free_set(apr_allocator_t* allocator, apr_size_t size) {
    gs_oBooks.limited++;
    gs_oBooks.limit = size;
    gs_oBooks.limitedAllocator = allocator;
    realCall<decltype(apr_allocator_max_free_set)>("apr_allocator_max_free_set")(allocator, size);
}

extern "C" apr_status_t apr_pool_create_ex(apr_pool_t** pool, apr_pool_t* parent, apr_abortfunc_t abortFunction,
                                           apr_allocator_t* allocator) {
    gs_oBooks.created++;
    gs_oBooks.createdParent = parent;
    gs_oBooks.createdPlainly = !abortFunction && !allocator;
    *pool = nullptr;
    if (gs_oBooks.failCreate)
        return APR_ENOMEM;
    const auto create = realCall<decltype(apr_pool_create_ex)>("apr_pool_create_ex");
    const apr_status_t status = create(pool, parent, abortFunction, allocator);
    gs_oBooks.createdPool = *pool;
    return status;
}

extern "C" void apr_pool_destroy(apr_pool_t* pool) {
    gs_oBooks.destroyed++;
    gs_oBooks.destroyedPool = pool;
    realCall<decltype(apr_pool_destroy)>("apr_pool_destroy")(pool);
}

extern "C" void apr_pool_tag(apr_pool_t* pool, const char* tag) {
    gs_oBooks.tagged++;
    gs_oBooks.taggedPool = pool;
    gs_oBooks.tag = tag;
    realCall<decltype(apr_pool_tag)>("apr_pool_tag")(pool, tag);
}

namespace {

static_assert(std::is_base_of_v<APRInitializer, APRPool>);
static_assert(!std::is_convertible_v<APRPool*, APRInitializer*>);
static_assert(std::has_virtual_destructor_v<APRInitializer>);

apr_pool_t* const NO_POOL = nullptr;
const APRPool* const NO_PARENT = nullptr;

apr_status_t countDeath(void* counter) {
    ++*static_cast<int*>(counter);
    return APR_SUCCESS;
}

// countDeaths has `deaths` grow by one when the pool is cleared or destroyed.
void countDeaths(apr_pool_t* pool, int& deaths) {
    apr_pool_cleanup_register(pool, &deaths, countDeath, apr_pool_cleanup_null);
}

// RootPool is a pool that belongs to the test.
struct RootPool {
    RootPool() { apr_pool_create_ex(&pool, nullptr, nullptr, nullptr); }
    ~RootPool() { apr_pool_destroy(pool); }
    RootPool(const RootPool&) = delete;
    RootPool& operator=(const RootPool&) = delete;

    apr_pool_t* pool = nullptr;
};

// globalPool is the parent of all root pools.
apr_pool_t* globalPool() {
    const RootPool root;
    return apr_pool_parent_get(root.pool);
}

// nextNumber is the number that the next tag will carry.
unsigned long nextNumber() {
    return std::stoul(APRPool("number").tag()) + 1;
}

// require ends the child process with the number of the line that was not true.
void require(bool condition, int line = __builtin_LINE()) {
    if (!condition)
        _exit(line % 255 + 1);
}

// expectChildOk expects that all is true that `body` requires in a child process.
template <class Body>
void expectChildOk(Body body) {
    const int status = childStatus(body);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "line " << WEXITSTATUS(status) - 1 << " modulo 255";
}

void endStatic() {
    APRInitializer::ms_APRInitializer.~APRInitializer();
}

void startStatic() {
    new (&APRInitializer::ms_APRInitializer) APRInitializer;
}

// --- APRInitializer

TEST(APRInitializer, LibraryIsStartedBeforeMain) {
    EXPECT_GE(gs_oBooks.initialized, 1);
    EXPECT_EQ(gs_oBooks.limited, 1);
    EXPECT_EQ(gs_oBooks.limit, 0x20000U);
    const RootPool root;
    EXPECT_EQ(gs_oBooks.limitedAllocator, apr_pool_allocator_get(root.pool));
}

TEST(APRInitializer, FurtherInstancesOnlyCount) {
    const Books before = gs_oBooks;
    {
        const APRInitializer one;
        const APRInitializer two;
    }
    EXPECT_EQ(gs_oBooks.initialized, before.initialized);
    EXPECT_EQ(gs_oBooks.terminated, before.terminated);
    EXPECT_EQ(gs_oBooks.limited, before.limited);
    EXPECT_EQ(gs_oBooks.created, before.created);
}

void checkRestart() {
    const Books before = gs_oBooks;
    endStatic();
    require(gs_oBooks.terminated == before.terminated + 1);
    require(gs_oBooks.initialized == before.initialized);
    gs_oBooks.limit = 0;
    startStatic();
    require(gs_oBooks.initialized == before.initialized + 1);
    require(gs_oBooks.terminated == before.terminated + 1);
    require(gs_oBooks.limited == before.limited + 1);
    require(gs_oBooks.limit == 0x20000);
    const APRPool pool("after");
    require(apr_palloc(pool.get(), 100) != nullptr);
    require(gs_oBooks.limitedAllocator == apr_pool_allocator_get(pool.get()));
}

TEST(APRInitializer, LastOneEndsTheLibraryAndALaterOneStartsItAgain) {
    expectChildOk(checkRestart);
}

TEST(APRInitializer, RestartWorksRepeatedly) {
    expectChildOk([] {
        for (int i = 0; i < 5; i++)
            checkRestart();
    });
}

TEST(APRInitializer, TemporaryPoolOfTheStartIsDestroyed) {
    expectChildOk([] {
        apr_initialize();  // one more user of APR, so that the start below makes no pools of the library's own
        endStatic();
        const Books before = gs_oBooks;
        startStatic();
        require(gs_oBooks.created == before.created + 1);
        require(gs_oBooks.createdParent == nullptr);
        require(gs_oBooks.destroyedPool == gs_oBooks.createdPool);
        require(gs_oBooks.tagged == before.tagged);
    });
}

TEST(APRInitializer, OtherInstancesKeepTheLibrary) {
    expectChildOk([] {
        const int terminated = gs_oBooks.terminated;
        auto other = std::make_unique<APRInitializer>();
        endStatic();
        require(gs_oBooks.terminated == terminated);
        other.reset();
        require(gs_oBooks.terminated == terminated + 1);
    });
}

TEST(APRInitializer, PoolsKeepTheLibraryOwnedAndBorrowedAlike) {
    expectChildOk([] {
        const int terminated = gs_oBooks.terminated;
        auto owner = std::make_unique<APRPool>("owner");
        auto borrower = std::make_unique<APRPool>(*owner);
        endStatic();
        borrower.reset();
        require(gs_oBooks.terminated == terminated);
        require(apr_palloc(owner->get(), 100) != nullptr);
        owner.reset();
        require(gs_oBooks.terminated == terminated + 1);
        const APRPool again("again");
        require(apr_palloc(again.get(), 100) != nullptr);
    });
}

TEST(APRInitializer, FailedStartAborts) {
    const int status = childStatus([] {
        endStatic();
        gs_oBooks.failInitialize = true;
        startStatic();
    });
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST(APRInitializer, FailedTemporaryPoolAborts) {
    const int status = childStatus([] {
        endStatic();
        gs_oBooks.failCreateOnceInitialized = true;
        startStatic();
    });
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

// --- Making and ending

// expectMade expects that `make` makes a pool of its own below `parent`, tagged with `name`, and destroys it at its
// end.
template <class Make>
void expectMade(Make make, apr_pool_t* parent, const std::string& name) {
    const std::string number = std::to_string(nextNumber());
    const Books before = gs_oBooks;
    int deaths = 0;
    {
        const auto pool = make();
        EXPECT_EQ(apr_pool_parent_get(pool->get()), parent);
        EXPECT_EQ(gs_oBooks.created, before.created + 1);
        EXPECT_TRUE(gs_oBooks.createdPlainly);
        EXPECT_EQ(pool->tag(), number + "-" + name);
        EXPECT_EQ(gs_oBooks.tagged, before.tagged + 1);
        EXPECT_EQ(gs_oBooks.taggedPool, pool->get());
        EXPECT_EQ(gs_oBooks.tag, pool->tag().c_str()) << "the tag must live as long as the object";
        countDeaths(pool->get(), deaths);
    }
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(gs_oBooks.destroyed, before.destroyed + 1);
}

// expectBorrowed expects that `make` borrows `lender`, makes no pool, tags none and leaves it alone at its end.
template <class Make>
void expectBorrowed(Make make, apr_pool_t* lender) {
    const unsigned long number = nextNumber();
    const Books before = gs_oBooks;
    int deaths = 0;
    countDeaths(lender, deaths);
    {
        const auto pool = make();
        EXPECT_EQ(pool->get(), lender);
        EXPECT_EQ(pool->tag(), "");
    }
    EXPECT_EQ(gs_oBooks.created, before.created);
    EXPECT_EQ(gs_oBooks.tagged, before.tagged);
    EXPECT_EQ(gs_oBooks.destroyed, before.destroyed);
    EXPECT_EQ(deaths, 0);
    apr_pool_cleanup_kill(lender, &deaths, countDeath);
    EXPECT_EQ(nextNumber(), number + 1) << "borrowing takes no number";
}

template <class... Arguments>
auto make(Arguments... arguments) {
    return [=] { return std::make_unique<APRPool>(arguments...); };
}

TEST(APRPool, OfAPoolBorrowsItUnlessANameIsGiven) {
    const RootPool root;
    expectBorrowed(make(root.pool, nullptr), root.pool);
    expectMade(make(root.pool, "child"), root.pool, "child");
    expectMade(make(root.pool, ""), root.pool, "");
    expectMade(make(NO_POOL, "root"), globalPool(), "root");
    expectMade(make(NO_POOL, nullptr), globalPool(), "<no name>");
}

TEST(APRPool, OfANameIsANewRootPool) {
    expectMade(make("root"), globalPool(), "root");
    expectMade(make("%s %n 100%"), globalPool(), "%s %n 100%");
    expectMade(make(static_cast<const char*>(nullptr)), globalPool(), "<no name>");
    const std::string longName(2000, 'n');
    expectMade([&] { return std::make_unique<APRPool>(longName.c_str()); }, globalPool(), longName);
}

TEST(APRPool, OfAParentPointerBorrowsUnlessItIsNullOrANameIsGiven) {
    const APRPool parent("parent");
    const APRPool* const pointer = &parent;
    expectBorrowed(make(pointer, nullptr), parent.get());
    expectMade(make(pointer, "child"), parent.get(), "child");
    expectMade(make(NO_PARENT, "root"), globalPool(), "root");
    expectMade(make(NO_PARENT, nullptr), globalPool(), "<no name>");
}

TEST(APRPool, OfAParentBorrowsUnlessANameIsGiven) {
    const APRPool parent("parent");
    expectBorrowed([&] { return std::make_unique<APRPool>(parent, nullptr); }, parent.get());
    expectBorrowed([&] { return std::make_unique<APRPool>(parent); }, parent.get());
    expectMade([&] { return std::make_unique<APRPool>(parent, "child"); }, parent.get(), "child");
}

TEST(APRPool, BorrowerOfABorrowerBorrowsTheSamePool) {
    const APRPool parent("parent");
    const APRPool borrower(parent);
    expectBorrowed([&] { return std::make_unique<APRPool>(borrower); }, parent.get());
    expectMade([&] { return std::make_unique<APRPool>(borrower, "child"); }, parent.get(), "child");
}

TEST(APRPool, NumbersGoUpByOne) {
    const unsigned long first = nextNumber();
    for (unsigned long i = 0; i < 10; i++)
        EXPECT_EQ(APRPool(nullptr).tag(), std::to_string(first + i) + "-<no name>");
}

TEST(APRPool, NameIsCopied) {
    std::string name = "name";
    const APRPool pool(name.c_str());
    const std::string before = pool.tag();
    name = "else";
    EXPECT_EQ(pool.tag(), before);
}

TEST(APRPool, FailedCreationLeavesNoPool) {
    gs_oBooks.failCreate = true;
    {
        const APRPool pool("none");
        EXPECT_EQ(pool.get(), nullptr);
        const APRPool borrower(pool);
        EXPECT_EQ(borrower.get(), nullptr);
        const APRPool child(pool, "child");
        EXPECT_EQ(child.get(), nullptr);
    }
    gs_oBooks.failCreate = false;
    EXPECT_NE(APRPool("some").get(), nullptr);
}

// --- Assignment

TEST(APRPoolAssignment, BorrowsTheOthersPool) {
    const APRPool other("other");
    int deaths = 0;
    countDeaths(other.get(), deaths);
    {
        APRPool pool(other);
        const APRPool third("third");
        APRPool* const result = &(pool = third);
        EXPECT_EQ(result, &pool);
        EXPECT_EQ(pool.get(), third.get());
        pool = other;
        EXPECT_EQ(pool.get(), other.get());
    }
    EXPECT_EQ(deaths, 0);
    apr_pool_cleanup_kill(other.get(), &deaths, countDeath);
}

TEST(APRPoolAssignment, OwnedPoolLivesOnUntilItsParentGoes) {
    int deaths = 0;
    int otherDeaths = 0;
    {
        const RootPool parent;
        const APRPool other("other");
        countDeaths(other.get(), otherDeaths);
        {
            APRPool pool(parent.pool, "left alone");
            countDeaths(pool.get(), deaths);
            pool = other;
            EXPECT_EQ(deaths, 0);
        }
        EXPECT_EQ(deaths, 0);
        EXPECT_EQ(otherDeaths, 0);
    }
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(otherDeaths, 1);
}

TEST(APRPoolAssignment, OwnedRootPoolLivesOn) {
    const APRPool other("other");
    int deaths = 0;
    apr_pool_t* left = nullptr;
    std::string tag;
    {
        APRPool pool("left alone, with a tag that fills more than a short string");
        left = pool.get();
        tag = pool.tag();
        countDeaths(left, deaths);
        pool = other;
        EXPECT_NE(gs_oBooks.tag, pool.tag().c_str()) << "the tag must live as long as the pool";
    }
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(gs_oBooks.taggedPool, left);
    EXPECT_EQ(gs_oBooks.tag, tag);
    EXPECT_EQ(apr_pool_parent_get(left), globalPool());
    apr_pool_destroy(left);
    EXPECT_EQ(deaths, 1);
}

TEST(APRPoolAssignment, BorrowedPoolKeepsItsOwnersTag) {
    const APRPool owner("owner");
    const APRPool other("other");
    APRPool pool(owner);
    const Books before = gs_oBooks;
    pool = other;
    EXPECT_EQ(gs_oBooks.tagged, before.tagged);
    EXPECT_EQ(gs_oBooks.tag, before.tag);
}

TEST(APRPoolAssignment, PoolThatCouldNotBeMadeIsNotTagged) {
    const APRPool other("other");
    gs_oBooks.failCreate = true;
    APRPool pool("none");
    gs_oBooks.failCreate = false;
    const int before = gs_oBooks.tagged;
    pool = other;
    EXPECT_EQ(pool.get(), other.get());
    EXPECT_EQ(gs_oBooks.tagged, before);
}

TEST(APRPoolAssignment, ToItselfDoesNothing) {
    int deaths = 0;
    {
        APRPool pool("self");
        const APRPool& same = pool;
        apr_pool_t* const before = pool.get();
        const std::string tag = pool.tag();
        countDeaths(before, deaths);
        pool = same;
        EXPECT_EQ(pool.get(), before);
        EXPECT_EQ(pool.tag(), tag);
        EXPECT_EQ(deaths, 0);
    }
    EXPECT_EQ(deaths, 1) << "the pool is still owned";
}

}  // namespace
