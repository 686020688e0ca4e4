#pragma once

// Processor vendor and virtualisation-extension detection through CPUID. The
// decisions take the CPUID instruction as a function so that they can be
// checked against the register values of processors we do not run on.

#include "Logging_p.h"

#include <QDebug>
#include <QString>
#include <QtGlobal>

#include <cpuid.h>
#include <functional>

namespace VMToolsCpu {

struct Registers {
    quint32 eax = 0;
    quint32 ebx = 0;
    quint32 ecx = 0;
    quint32 edx = 0;
};

using CpuidFunction = std::function<Registers(quint32 leaf)>;

constexpr quint32 kVmxBit = 1u << 5;
constexpr quint32 kSvmBit = 1u << 2;

/// The processor's own answer for a leaf.
inline Registers cpuid(quint32 leaf)
{
    Registers r;
    __cpuid(leaf, r.eax, r.ebx, r.ecx, r.edx);
    return r;
}

/// Up to four characters of a register, stopping at its first zero byte.
inline QString registerText(quint32 value)
{
    QString text;
    for (int shift = 0; shift < 32; shift += 8) {
        const char c = static_cast<char>((value >> shift) & 0xff);
        if (c == 0)
            break;
        text += QLatin1Char(c);
    }
    return text;
}

/// The vendor identification of leaf 0: EBX, EDX, then ECX.
inline QString vendor(const CpuidFunction &cpuidFn)
{
    const Registers r = cpuidFn(0);
    return registerText(r.ebx) + registerText(r.edx) + registerText(r.ecx);
}

/// VMX on Intel (leaf 1), SVM on every other vendor (leaf 0x80000001), each
/// read only when the processor reports that leaf.
inline bool virtualizationAvailable(const QString &vendorText, const CpuidFunction &cpuidFn)
{
    if (vendorText == QLatin1String("GenuineIntel")) {
        const quint32 ecx = cpuidFn(0).eax != 0 ? cpuidFn(1).ecx : 0;
        qCDebug(hvEngineLog) << "[VMTools]" << "CPUID 0x1 (Intel): ECX=" << QString::number(ecx, 16);
        return ecx & kVmxBit;
    }
    const quint32 ecx = cpuidFn(0x80000000).eax > 0x80000000 ? cpuidFn(0x80000001).ecx : 0;
    qCDebug(hvEngineLog) << "[VMTools]" << "CPUID 0x80000001 (AMD): ECX=" << QString::number(ecx, 16);
    return ecx & kSvmBit;
}

} // namespace VMToolsCpu
