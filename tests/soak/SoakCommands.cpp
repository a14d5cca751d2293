// Linked to main.cpp beside the service with its console and its serial port up: console lines
// "soak ..." run print jobs, open the port again, set the log's level, and report what can't be
// seen from outside. Each ends with a line "soak done".
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "AllocatedBytes.h"
#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "Log.h"
#include "LogEvent.h"
#include "PrintService.h"
#include "SystemModule.h"
#include "Thread.h"
#include "VideoConsumer.h"

static const char* const SOURCE_NAME = "SoakCommands.cpp";

namespace {

/** A deliberate fault, one per call, by which the program that watches shows that it sees them. */
void leak(const std::string& strWhat)
{
    static const size_t BYTES = 65536;
    static std::vector<std::unique_ptr<VideoConsumer>> s_vecConsumer;
    if ("memory" == strWhat) {
        void* volatile pLost = malloc(BYTES); // seen by the leak check too
        memset(pLost, 1, BYTES);
        pLost = nullptr;
    } else if ("descriptor" == strWhat) {
        (void)!open("/dev/null", O_RDONLY | O_CLOEXEC);
    } else if ("thread" == strWhat) {
        pthread_t thread{};
        pthread_create(
            &thread, nullptr,
            [](void*) -> void* {
                pause();
                return nullptr;
            },
            nullptr);
    } else if ("consumer" == strWhat) {
        s_vecConsumer.push_back(std::make_unique<VideoConsumer>());
        (void)SystemModule::getInstance().registerConsumer(s_vecConsumer.back().get());
    }
}

class SoakCommands
{
public:
    SoakCommands()
    {
        EventBus<LogEvent>::subscribe(this, &SoakCommands::onLog);
        EventBus<DebugCmdEvent>::subscribe(this, &SoakCommands::onCommand);
    }

    int onCommand(Event* pEvent)
    {
        const auto& event = dynamic_cast<DebugCmdEvent&>(*pEvent);
        const std::vector<std::string> vecWord(event.m_ppWords, event.m_ppWords + *event.m_pCount);
        if ("soak" == vecWord[0]) {
            run(vecWord[1], (vecWord.size() > 2) ? vecWord[2] : std::string());
            printf("soak done\n");
        }
        return 0;
    }

    int onLog(Event* pEvent)
    {
        static const char* const COUNT = "Total consumer num=";
        const auto& event = dynamic_cast<LogEvent&>(*pEvent);
        if (!m_bCounting || 0 == pthread_equal(m_counter, pthread_self())) {
            return 0; // someone else's line
        }
        const std::string strLine(event.m_text.get(), static_cast<size_t>(event.m_s32Length));
        const size_t uPos = strLine.find(COUNT);
        if (std::string::npos != uPos) {
            m_nConsumers = atoi(strLine.c_str() + uPos + strlen(COUNT));
        }
        return 0;
    }

private:
    void run(const std::string& strCommand, const std::string& strArgument)
    {
        SystemModule& module = SystemModule::getInstance();
        if ("job" == strCommand) {
            startJob(atoi(strArgument.c_str()));
        } else if ("pause" == strCommand) {
            (void)module.pausePrintJob();
        } else if ("resume" == strCommand) {
            (void)module.startPrintJob();
        } else if ("stop" == strCommand) {
            (void)module.stopPrintJob();
        } else if ("open" == strCommand) {
            printf("soak opened %d\n", RET_SUCCESS == module.openSerial() ? 1 : 0);
        } else if ("level" == strCommand) {
            m_u32Level = static_cast<uint32_t>(atoi(strArgument.c_str()));
            Log::getInstance().setLevel(m_u32Level);
        } else if ("lines" == strCommand) {
            for (int i = atoi(strArgument.c_str()); i > 0; --i) {
                LOG(5, "soak line %d\n", i);
            }
        } else if ("state" == strCommand) {
            const int nConsumers = countConsumers();
            printf("soak state consumers=%d allocated=%zu print=%d\n", nConsumers, allocatedBytes(),
                   static_cast<int>(PrintService::getInstance().getState()));
        } else if ("leak" == strCommand) {
            leak(strArgument);
        }
    }

    /** So many moves of 10 ms each, between 0 and 1 mm. */
    static void startJob(int nLines)
    {
        std::string strJob;
        for (int i = 0; i < nLines; ++i) {
            strJob += (0 == i % 2) ? "G1 X1 F6000\n" : "G1 X0 F6000\n";
        }
        SystemModule& module = SystemModule::getInstance();
        (void)module.savePrintJob(strJob.data(), static_cast<int>(strJob.size()));
        (void)module.startPrintJob();
    }

    /** The producer gives its number of consumers only in the log line of a new one. */
    int countConsumers()
    {
        VideoConsumer probe;
        m_nConsumers = -1;
        m_counter = pthread_self();
        m_bCounting = true;
        Log::getInstance().setLevel((m_u32Level > 7) ? m_u32Level : 7);
        const RET_E eRet = SystemModule::getInstance().registerConsumer(&probe);
        m_bCounting = false;
        Log::getInstance().setLevel(m_u32Level);
        if (RET_SUCCESS == eRet) {
            (void)SystemModule::getInstance().cancelConsumer(&probe);
        }
        return m_nConsumers - 1; // without the probe
    }

    uint32_t m_u32Level = 5; // as main sets it
    std::atomic<bool> m_bCounting{false};
    pthread_t m_counter{}; // set before m_bCounting
    int m_nConsumers = -1;
};

// Its destructor does nothing: the buses may still use it at the end.
SoakCommands g_soakCommands;

} // namespace
