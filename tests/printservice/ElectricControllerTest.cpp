// The controller object: it takes the port and does nothing with it.
#include "ElectricController.h"

#include <gtest/gtest.h>

#include "UART.h"

TEST(ElectricController, DeliberateOperationsHaveNoEffect)
{
    UART uart;
    ElectricController& controller = ElectricController::getInstance();
    controller.setUart(&uart);

    EXPECT_EQ(0, controller.reservedFirst(1));
    EXPECT_EQ(0, controller.reservedSecond(-1));

    EXPECT_EQ(-1, uart.getFd());
    controller.setUart(nullptr);
}

TEST(ElectricController, IsOne)
{
    EXPECT_EQ(&ElectricController::getInstance(), &ElectricController::getInstance());
}
