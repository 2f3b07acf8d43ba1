#include "firmware/Property.h"

#include "firmware/QZBoot.h"
#include "firmware/QZImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace {

struct Thermometer {
    explicit Thermometer(int value = 0) : degrees(value) {
        Degrees.setContainer(this);
        Place.setContainer(this);
    }

    int get_degrees() { return degrees; }
    int get_twice_the_degrees() { return 2 * degrees; }
    void set_degrees(int value) { degrees = value; }
    std::string get_place() { return "roof"; }

    property<Thermometer, int, 1> Degrees;
    property<Thermometer, std::string, 1> Place;
    int degrees;
};

TEST(Property, ReadsThroughTheGetterOfItsOwner) {
    Thermometer owner(21);
    owner.Degrees.getter(&Thermometer::get_degrees);
    EXPECT_EQ(static_cast<int>(owner.Degrees), 21);
    owner.degrees = -4;
    const Thermometer& read_only = owner;
    const int degrees = read_only.Degrees;
    EXPECT_EQ(degrees, -4);
    owner.Place.getter(&Thermometer::get_place);
    const std::string place = owner.Place;
    EXPECT_EQ(place, "roof");
}

TEST(Property, FollowsTheLastOwnerAndGetter) {
    Thermometer first(1);
    Thermometer second(2);
    property<Thermometer, int, 1> view(&first, &Thermometer::get_degrees);
    EXPECT_EQ(static_cast<int>(view), 1);
    view.setContainer(&second);
    EXPECT_EQ(static_cast<int>(view), 2);
    view.getter(&Thermometer::get_twice_the_degrees);
    EXPECT_EQ(static_cast<int>(view), 4);
}

TEST(Property, HandsAnAssignedValueToTheSetter) {
    Thermometer owner;
    owner.Degrees.setter(&Thermometer::set_degrees);
    EXPECT_EQ((owner.Degrees = 37), 37);
    EXPECT_EQ(owner.degrees, 37);
}

// ---- what is missing ends the program, and the message says where ----

TEST(PropertyDeathTest, NeedsAnOwner) {
    property<Thermometer, int, 1> view;
    view.setter(&Thermometer::set_degrees);
    EXPECT_DEATH(static_cast<void>(static_cast<int>(view)), "Property.*`m_cObject != NULL' failed");
    EXPECT_DEATH(view = 1, "Property.*`m_cObject != NULL' failed");
    view.getter(&Thermometer::get_degrees);
    EXPECT_DEATH(static_cast<void>(static_cast<int>(view)), "Property.*`m_cObject != NULL' failed");
}

TEST(PropertyDeathTest, NeedsAGetterAndASetter) {
    Thermometer owner;
    EXPECT_DEATH(owner.Degrees = 1, "Property.*`Set != NULL' failed");
    EXPECT_DEATH(static_cast<void>(static_cast<int>(owner.Degrees)), "Property.*`Get != NULL' failed");
}

TEST(PropertyDeathTest, FirmwareClassesPublishReadOnlyViews) {
    CQZBoot boot(nullptr, 0);
    EXPECT_DEATH(boot.Version = 1U, "`Set != NULL' failed");
    EXPECT_DEATH(boot.EntryLoaderCount = uint8_t{1}, "`Set != NULL' failed");
    CQZImage image;
    EXPECT_DEATH(image.FWOffset = 1U, "`Set != NULL' failed");
    EXPECT_DEATH(image.SingleFlag = true, "`Set != NULL' failed");
}

}  // namespace
