// A print service of the test's own, and one with an arm.
#pragma once

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "PrintService.h"
#include "ScratchFolder.h"
#include "StatusReportEvent.h"
#include "TestArm.h"
#include "Time.h"
#include "UART.h"

/**
 * A service of the test's own; the singleton would bring its past along. Whoever works it is the
 * operator as well.
 */
class FreshPrintService : public PrintService
{
public:
    /** @param pArm  borrowed; null: nobody has to allow anything */
    explicit FreshPrintService(TestArm* pArm = nullptr) : m_pArm(pArm) {}

    int startPrint()
    {
        if (nullptr != m_pArm && PRINT_STATE_PRINTING != getState()) {
            m_pArm->allowJob(PRINT_STATE_PAUSED == getState());
        }
        return PrintService::startPrint();
    }
    int saveGcode(const char* pData, int nSize)
    {
        if (nullptr != m_pArm && PRINT_STATE_PAUSED == getState()) {
            m_pArm->allowStop(); // it ends the job that is open
        }
        return PrintService::saveGcode(pData, nSize);
    }
    int pausePrint()
    {
        if (nullptr != m_pArm) {
            m_pArm->allowPause();
        }
        return PrintService::pausePrint();
    }
    int stopPrint()
    {
        if (nullptr != m_pArm) {
            m_pArm->allowStop();
        }
        return PrintService::stopPrint();
    }

private:
    TestArm* m_pArm;
};

/** Keeps the codes of the status reports. */
class StatusReports
{
public:
    StatusReports()
    {
        EventBus<StatusReportEvent>::subscribe(this, &StatusReports::onReport);
    }
    StatusReports(const StatusReports&) = delete;
    StatusReports& operator=(const StatusReports&) = delete;
    ~StatusReports()
    {
        EventBus<StatusReportEvent>::unsubscribe(this, &StatusReports::onReport);
    }

    std::vector<std::string> codes() const
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_vecCode;
    }

    int onReport(Event* pEvent)
    {
        const auto& event = dynamic_cast<StatusReportEvent&>(*pEvent);
        EXPECT_EQ(1, event.m_nWord0);
        EXPECT_EQ(2, event.m_nWord1);
        EXPECT_EQ(4, event.m_nCodeLen);
        const std::lock_guard<std::mutex> guard(m_mtx);
        m_vecCode.emplace_back(event.m_pCode);
        return 0;
    }

private:
    mutable std::mutex m_mtx; // reports come from the service's thread, too
    std::vector<std::string> m_vecCode;
};

/** A service in a scratch working directory; its output is kept until output() is asked for. */
class FreshPrintTest : public testing::Test
{
protected:
    using Texts = std::vector<std::string>;

    /** @param pArm  as FreshPrintService has it */
    void begin(UART& uart, TestArm* pArm = nullptr)
    {
        Log::getInstance().setSinks(0); // standard output is the service's own here
        ASSERT_EQ(0, chdir(m_folder.path().c_str()));
        m_pService = std::make_unique<FreshPrintService>(pArm);
        m_pService->setUart(&uart);
        testing::internal::CaptureStdout();
        m_bCapturing = true;
    }

    void TearDown() override
    {
        m_pService.reset();
        const std::string strOutput = output();
        if (HasFailure()) {
            std::cout << strOutput; // what was expected stands in it
        }
        EXPECT_EQ(0, chdir("/"));
    }

    std::string output()
    {
        return std::exchange(m_bCapturing, false) ? testing::internal::GetCapturedStdout()
                                                  : std::string();
    }

    FreshPrintService& service()
    {
        return *m_pService;
    }

    ScratchFolder m_folder;
    std::unique_ptr<FreshPrintService> m_pService;

private:
    bool m_bCapturing = false;
};

/** Such a service with an arm. */
class PrintTest : public FreshPrintTest
{
protected:
    explicit PrintTest(const Texts& vecOption = {"--speed-up", "1000"}) : m_controller(vecOption) {}

    void SetUp() override
    {
        ASSERT_EQ(1, m_uart.open(m_controller.getPort()));
        ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
        m_controller.listenTo(m_uart.getFd());
        begin(m_uart, &m_controller);
    }

    void TearDown() override
    {
        FreshPrintTest::TearDown();
        m_uart.close();
    }

    bool waitForState(PRINT_STATE_E eState)
    {
        return eventually([this, eState] { return eState == service().getState(); });
    }

    /** Wait for a job's end; a slow machine may take its time, but goes on. */
    bool waitForEnd()
    {
        size_t uBefore = 0;
        while (!waitForState(PRINT_STATE_STOPPED)) {
            const size_t uNow = received().size();
            if (uNow == uBefore) {
                return false;
            }
            uBefore = uNow;
        }
        return true;
    }

    /** Wait until the controller has got so many lines, empty ones included. */
    bool waitForLines(size_t uLines)
    {
        // Each look reads the whole journal: looked at all the time, a long one would leave the
        // job's thread nothing of a slow processor and of the allocator's lock.
        std::chrono::milliseconds pause(1);
        return eventually([this, uLines, &pause] {
            const bool bThere = received().size() >= uLines;
            std::this_thread::sleep_for(bThere ? std::chrono::milliseconds(0) : pause);
            pause = std::min(2 * pause, std::chrono::milliseconds(250));
            return bThere;
        });
    }

    Texts received()
    {
        return m_controller.readTexts("rx");
    }

    /** Stop the controller's reading and fill the wire with blanks until it takes no more. */
    void fillWire()
    {
        m_controller.command("stall");
        const std::string strFill(4096, ' ');
        while (m_uart.send(strFill.data(), static_cast<int>(strFill.size()), 0) > 0) {
        }
        // Full for many bytes is not full for one, and the kernel moves bytes on behind the
        // writer's back.
        for (int nRefused = 0; nRefused < 10; ++nRefused) {
            while (1 == m_uart.send(" ", 1, 0)) {
                nRefused = 0;
            }
            sleepFor(Time(0, 20000));
        }
    }

    void saveJob(const std::string& strJob)
    {
        EXPECT_EQ(0, service().saveGcode(strJob.data(), static_cast<int>(strJob.size())));
    }

    /** Save a job, start it and wait for its end. */
    void runJob(const std::string& strJob)
    {
        saveJob(strJob);
        EXPECT_EQ(0, service().startPrint());
        EXPECT_TRUE(waitForEnd());
    }

    float progress()
    {
        float fProgress = -1;
        EXPECT_EQ(0, service().getProgress(&fProgress));
        return fProgress;
    }

    static bool contains(const std::string& strText, const std::string& strPart)
    {
        return std::string::npos != strText.find(strPart);
    }

    static bool fileExists(const char* pName)
    {
        return 0 == access(pName, F_OK);
    }

    TestArm m_controller;
    UART m_uart;
};
