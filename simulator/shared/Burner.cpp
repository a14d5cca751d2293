// Burns the beam's way into the virtual workpiece.
#include "Burner.h"

#include <algorithm>
#include <cmath>

static const double SIGMA_MM = 0.06; // a diode laser's focus
static const double BLUR_PER_MM = 0.03;
static const double REACH = 2.5;          // in sigma
static const double CHARRING_ENERGY = 10; // power times seconds per millimetre of a line's middle
static const double PIECE_MM = 1;         // so that few cells lie about a piece
static const double PI = 3.14159265358979;

/** The first cell whose middle lies behind a place, within the grid. */
static size_t cellAt(double dMillimetre, size_t uCells)
{
    const double dCells = static_cast<double>(uCells);
    const double dCell = std::ceil(dMillimetre / BurntState::CELL_MM + dCells / 2 - 0.5);
    return static_cast<size_t>(std::clamp(dCell, 0.0, dCells));
}

static double middleOf(size_t uCell, size_t uCells)
{
    return (static_cast<double>(uCell) + 0.5 - static_cast<double>(uCells) / 2) *
           BurntState::CELL_MM;
}

/** The share of a standard Gaussian that lies below a value. */
static double below(double dSigmas)
{
    return std::erfc(-dSigmas / std::sqrt(2.0)) / 2;
}

void Burner::burn(const Place& from, const Place& to, double dEnergy)
{
    const double dLength = std::hypot(to.dX - from.dX, to.dY - from.dY);
    const double dPieces = std::max(1.0, std::ceil(dLength / PIECE_MM));
    const auto at = [&](double dShare) {
        return Place{from.dX + (to.dX - from.dX) * dShare, from.dY + (to.dY - from.dY) * dShare,
                     from.dZ + (to.dZ - from.dZ) * dShare};
    };
    for (double dPiece = 0; dPiece < dPieces; ++dPiece) {
        burnPiece(at(dPiece / dPieces), at((dPiece + 1) / dPieces), dEnergy / dPieces);
    }
    m_burnt.u32Changes.fetch_add(1, std::memory_order_release);
}

void Burner::burnPiece(const Place& from, const Place& to, double dEnergy)
{
    const double dLength = std::hypot(to.dX - from.dX, to.dY - from.dY);
    const double dAlongX = dLength > 0 ? (to.dX - from.dX) / dLength : 1;
    const double dAlongY = dLength > 0 ? (to.dY - from.dY) / dLength : 0;
    const double dSigma = SIGMA_MM + BLUR_PER_MM * std::fabs((from.dZ + to.dZ) / 2);
    const double dReach = REACH * dSigma;
    // Energy per millimetre of a line, for each of its millimetres that lies beside a cell.
    const double dDensity = dEnergy * SIGMA_MM / dSigma / CHARRING_ENERGY;
    const double dPoint = 1 / (dSigma * std::sqrt(2 * PI));

    const size_t uRight = cellAt(std::max(from.dX, to.dX) + dReach, BurntState::COLUMNS);
    const size_t uLower = cellAt(std::max(from.dY, to.dY) + dReach, BurntState::ROWS);
    for (size_t y = cellAt(std::min(from.dY, to.dY) - dReach, BurntState::ROWS); y < uLower; ++y) {
        for (size_t x = cellAt(std::min(from.dX, to.dX) - dReach, BurntState::COLUMNS); x < uRight;
             ++x) {
            const double dX = middleOf(x, BurntState::COLUMNS) - from.dX;
            const double dY = middleOf(y, BurntState::ROWS) - from.dY;
            const double dAlong = dX * dAlongX + dY * dAlongY;
            const double dAcross = dX * dAlongY - dY * dAlongX;
            const double dBeyond = dAlong - std::clamp(dAlong, 0.0, dLength);
            if (dAcross * dAcross + dBeyond * dBeyond > dReach * dReach) {
                continue;
            }
            const double dBeside =
                dLength > dSigma / 100
                    ? (below(dAlong / dSigma) - below((dAlong - dLength) / dSigma)) / dLength
                    : dPoint * std::exp(-dAlong * dAlong / (2 * dSigma * dSigma));
            const double dGot =
                dDensity * dBeside * std::exp(-dAcross * dAcross / (2 * dSigma * dSigma));
            std::atomic<float>& fShare = m_burnt.afShare[y * BurntState::COLUMNS + x];
            const double dLeft = 1 - static_cast<double>(fShare.load(std::memory_order_relaxed));
            fShare.store(static_cast<float>(1 - dLeft * std::exp(-dGot)),
                         std::memory_order_relaxed);
        }
    }
}
