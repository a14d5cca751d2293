// The virtual controller board: port, pins, control socket and scene around the controller.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Burner.h"
#include "ControlServer.h"
#include "Controller.h"
#include "ControllerJournal.h"
#include "DtrLine.h"
#include "GpioLines.h"
#include "PtyPort.h"
#include "SceneFile.h"
#include "TimedScript.h"

/** What the board is made of; empty paths leave a part out. */
struct ControllerBoardOptions
{
    bool bGrbl = false;                             // the controller's language is Grbl 1.1
    std::vector<std::pair<int, double>> vecSetting; // "$n=value" of that
    ControllerSettings controller;
    std::string strNode;    // where the serial port appears; required
    std::string strGpio;    // folder of the pin files
    std::string strControl; // control socket
    std::string strJournal;
    std::string strScene;       // file of the shared SceneState
    double dFocusZ = 0;         // the height in millimetres at which the spot is sharp
    std::string strScript;      // commands with their times
    int64_t s64BootUs = 300000; // from the end of a reset until the port is there again
    bool bPlugged = true;       // the port is there from the start
    bool bResetOnOpen = false;  // the line DTR resets the controller, as it does on many boards
};

/** Runs on the calling thread alone. */
class ControllerBoard
{
public:
    explicit ControllerBoard(const ControllerBoardOptions& options);
    ControllerBoard(const ControllerBoard&) = delete;
    ControllerBoard& operator=(const ControllerBoard&) = delete;

    /** Build the board. @param strError  what failed, without a line end */
    bool init(std::string& strError);

    /**
     * Work until the command "quit" or until nStopFd becomes readable.
     * @param nStopFd  e.g. a signalfd
     */
    void run(int nStopFd);

private:
    bool loadScript(std::string& strError);
    std::string answer(const std::string& strCommand);
    int64_t nowUs() const;
    int pollTimeoutMs(int64_t s64NowUs) const;
    void readPort(int64_t s64NowUs);
    void writeAnswers(int64_t s64NowUs);
    void readPins(int64_t s64NowUs);
    void setResetLine(bool bLow, int64_t s64NowUs);
    void readDtr(int64_t s64NowUs);
    void endBoot(int64_t s64NowUs);
    void runDue(int64_t s64NowUs);
    void updateScene(bool bAlways);
    Burner::Place toScene(const Point& position) const;
    bool plug();
    void setPlugged(bool bPlugged, int64_t s64NowUs);
    std::string runCommand(const std::string& strCommand);

    ControllerBoardOptions m_options;
    int64_t m_s64StartUs;
    ControllerJournal m_journal;
    std::unique_ptr<IController> m_pController;
    PtyPort m_port;
    DtrLine m_dtr{m_port};
    GpioLines m_gpio;
    ControlServer m_control;
    Point m_scenePosition{}; // as last told, to leave the scene alone while nothing moves
    LIGHT_E m_eSceneLight = LIGHT_OFF;
    std::unique_ptr<SceneFile> m_pScene; // null without a scene
    std::unique_ptr<Burner> m_pBurner;   // as m_pScene
    TimedScript m_script;
    bool m_bPreset = true; // the settings were taken
    bool m_bResetLow = false;
    int64_t m_s64BootUs = -1; // when the controller has booted
    bool m_bDeaf = false;     // it boots with the port there, after a reset by DTR
    bool m_bStalled = false;
    bool m_bQuit = false;
};
