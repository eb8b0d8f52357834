// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

#include <linux/filter.h>

/**
 * Takes from a process what it does not need: system calls (seccomp), files (Landlock), new rights, core files, and
 * that others look into it. What the kernel lacks is left out.
 *
 * Made before the process is confined, because that needs calls that are forbidden then.
 */
class Confinement final
{
public:
    Confinement();

    /**
     * Confines the calling process for ever, with all that it starts. It keeps what the servant needs: to start
     * processes like itself, and to confine these further.
     *
     * @return flags of ConfinementFlag: what the kernel has done
     */
    [[nodiscard]] unsigned char confineServant() const;

    /**
     * Confines a visitor's process further: it starts nothing, and signals nobody. In the servant's child only.
     *
     * @return false if the kernel filters calls, but could not do it here
     */
    [[nodiscard]] bool confineVisitor() const;

private:
    std::vector<sock_filter> servantFilter;
    std::vector<sock_filter> visitorFilter;
};
