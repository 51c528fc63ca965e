#include <fmt/format.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "Basis/Exception.h"
#include "Kiln/Type.h"

namespace {

Kiln::TypeData typeNamed(std::string name, size_t size) {
  Kiln::TypeData t;
  t.name = std::move(name);
  t.size = size;
  return t;
}

TEST(TypeTest, registryFindsReplacesAndHashes) {
  EXPECT_EQ(Kiln::typeData("Test::Unknown"), nullptr);
  Kiln::TypeData t = typeNamed("Test::Hashed", 4);
  t.hash = [](const void* p) { return U64(*static_cast<const U32*>(p)) * 3; };
  t.toText = [](const void* p) { return fmt::format("<{}>", *static_cast<const U32*>(p)); };
  Kiln::typeRegister(t);
  const Kiln::TypeData* found = Kiln::typeData("Test::Hashed");
  ASSERT_NE(found, nullptr);
  const U32 v = 14;
  EXPECT_EQ(found->size, 4u);
  EXPECT_EQ(found->toText(&v), "<14>");
  EXPECT_EQ(Kiln::hashValue(*found, &v), 42u);

  Kiln::typeRegister(typeNamed("Test::Hashed", 8));
  EXPECT_EQ(Kiln::typeData("Test::Hashed"), found);
  EXPECT_EQ(found->size, 8u);
  try {
    Kiln::hashValue(*found, &v);
    ADD_FAILURE() << "hashed a type without a hash hook";
  } catch (const Basis::NotSupportedException& e) {
    EXPECT_STREQ(e.what(), "type Test::Hashed is not hashable");
  }
}

TEST(TypeTest, enumerationsMapNamesAndValues) {
  EXPECT_EQ(Kiln::enumType("Test::Color"), nullptr);
  const Kiln::EnumType& color = Kiln::enumRegister("Test::Color", {{0, "red"}, {2, "blue"}});
  EXPECT_EQ(Kiln::enumType("Test::Color"), &color);
  EXPECT_EQ(color.name(), "Test::Color");
  EXPECT_EQ(color.valueOf("blue"), 2u);
  EXPECT_EQ(color.valueOf("green"), std::nullopt);
  EXPECT_EQ(color.nameOf(0), "red");
  EXPECT_EQ(color.nameOf(7), "7");
  const Kiln::EnumType& again = Kiln::enumRegister("Test::Color", {{1, "green"}});
  EXPECT_EQ(&again, &color);
  EXPECT_EQ(color.valueOf("green"), 1u);
  EXPECT_EQ(color.valueOf("blue"), std::nullopt);
}

TEST(TypeTest, concurrentRegistrationKeepsEveryType) {
  constexpr int threadCount = 4;
  constexpr int typesPerThread = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < typesPerThread; ++i) {
        Kiln::typeRegister(typeNamed(fmt::format("Test::T{}_{}", t, i), size_t(i)));
        Kiln::enumRegister(fmt::format("Test::E{}_{}", t, i), {{U32(i), "x"}});
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int t = 0; t < threadCount; ++t) {
    for (int i = 0; i < typesPerThread; ++i) {
      const Kiln::TypeData* d = Kiln::typeData(fmt::format("Test::T{}_{}", t, i));
      ASSERT_NE(d, nullptr);
      EXPECT_EQ(d->size, size_t(i));
      const Kiln::EnumType* e = Kiln::enumType(fmt::format("Test::E{}_{}", t, i));
      ASSERT_NE(e, nullptr);
      EXPECT_EQ(e->valueOf("x"), U32(i));
    }
  }
}

}  // namespace
