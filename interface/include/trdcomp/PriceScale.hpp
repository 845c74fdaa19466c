/* trdcomp: how a double field travels. Both codings send a double as a
 * scaled integer, truncated toward zero with half a step added: the 2008
 * coding keeps four decimal places, the Fast coding three. This header is the
 * one place the scales are written; the engines, the tools and the models of
 * each coding's losses all use it. Valid C++11. */
#ifndef TRDCOMP_PRICESCALE_HPP
#define TRDCOMP_PRICESCALE_HPP

namespace trdcomp {
namespace price {

/* The scales: a unit on the wire is 1 / kScale of the value. */
const double kScale2008 = 10000.0;
const double kUnit2008 = 0.0001; /* the 2008 restore multiplies by the unit */
const double kScaleFast = 1000.0; /* the Fast restore divides by the scale */
const double kHalfStep = 0.00005;

/* The value before its truncation toward zero: the integer on the wire is
 * this, truncated (NaN and values outside the int64 range: INT64_MIN). */
inline double Scaled2008(double v) { return (v + kHalfStep) * kScale2008; }
inline double ScaledFast(double v) { return v * kScaleFast + kHalfStep; }

/* The double a received integer restores to. */
inline double Restored2008(long long wire) { return static_cast<double>(wire) * kUnit2008; }
inline double RestoredFast(long long wire) { return static_cast<double>(wire) / kScaleFast; }

/* Decimal places each coding keeps. */
enum { kPlaces2008 = 4, kPlacesFast = 3 };

}  // namespace price
}  // namespace trdcomp

#endif
