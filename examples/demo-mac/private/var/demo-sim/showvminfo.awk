# The "VBoxManage showvminfo" report of one machine, made from its .vbox
# settings file (the input) and the run state the caller passes in:
#   name, uuid, cfg (settings file as the Mac sees it), state, since.
# Labels are padded to one column, as VBoxManage does.

function attr(line, key,    rest) {
    if (!match(line, key "=\"[^\"]*\"")) return ""
    rest = substr(line, RSTART + length(key) + 2, RLENGTH - length(key) - 3)
    return rest
}

function row(label, value) { printf "%-29s%s\n", label ":", value }

function guest(type) {
    if (type in os) return os[type]
    return "Other/Unknown"
}

BEGIN {
    os["Ubuntu_64"] = "Ubuntu (64-bit)"
    os["Debian_64"] = "Debian (64-bit)"
    os["Fedora_64"] = "Fedora (64-bit)"
    os["Windows10_64"] = "Windows 10 (64-bit)"
    os["Windows11_64"] = "Windows 11 (64-bit)"
    os["Windows7_64"] = "Windows 7 (64-bit)"
    os["MacOS_64"] = "Mac OS X (64-bit)"
    os["FreeBSD_64"] = "FreeBSD (64-bit)"
    os["Other"] = "Other/Unknown"
    ram = 1024; cpus = 1; vram = 16; firmware = "BIOS"; graphics = "VMSVGA"
    n = 0; adapter = -1
}

/<Machine / { ostype = attr($0, "OSType") }
/<CPU / { cpus = attr($0, "count") }
/<Memory / { ram = attr($0, "RAMSize") }
/<Firmware / { firmware = attr($0, "type") }
/<Display / { vram = attr($0, "VRAMSize"); graphics = attr($0, "controller") }
/<Adapter / {
    adapter = attr($0, "slot") + 0
    enabled[adapter] = attr($0, "enabled")
    mac[adapter] = attr($0, "MACAddress")
    nictype[adapter] = attr($0, "type")
    cable[adapter] = (attr($0, "cable") == "false") ? "off" : "on"
    attach[adapter] = "none"
    next
}
adapter >= 0 && /<NAT[ \/>]/ { attach[adapter] = "NAT" }
adapter >= 0 && /<Forwarding / {
    rules[adapter] = rules[adapter] sprintf("NIC %d Rule(%d):   name = %s, protocol = %s, host ip = %s, host port = %s, guest ip = %s, guest port = %s\n", \
        adapter + 1, nrules[adapter]++, attr($0, "name"), attr($0, "proto") == "1" ? "tcp" : "udp", \
        attr($0, "hostip"), attr($0, "hostport"), attr($0, "guestip"), attr($0, "guestport"))
}
adapter >= 0 && /<BridgedInterface / { attach[adapter] = "Bridged Interface '" attr($0, "name") "'" }
adapter >= 0 && /<HostOnlyInterface / { attach[adapter] = "Host-only Interface '" attr($0, "name") "'" }
adapter >= 0 && /<InternalNetwork / { attach[adapter] = "Internal Network '" attr($0, "name") "'" }
adapter >= 0 && /<GenericInterface / { attach[adapter] = "Generic '" attr($0, "driver") "'" }
/<\/Adapter>/ { adapter = -1 }

END {
    row("Name", name)
    row("Encryption", "disabled")
    row("Groups", "/")
    row("Guest OS", guest(ostype))
    row("UUID", uuid)
    row("Config file", cfg)
    folder = cfg; sub(/\/[^\/]*$/, "", folder)
    row("Snapshot folder", folder "/Snapshots")
    row("Log folder", folder "/Logs")
    row("Hardware UUID", uuid)
    row("Memory size", ram "MB")
    row("Page Fusion", "disabled")
    row("VRAM size", vram "MB")
    row("CPU exec cap", "100%")
    row("HPET", "disabled")
    row("CPUProfile", "host")
    row("Chipset", "piix3")
    row("Firmware", firmware)
    row("Number of CPUs", cpus)
    row("PAE", "enabled")
    row("Long Mode", "enabled")
    row("Triple Fault Reset", "disabled")
    row("APIC", "enabled")
    row("X2APIC", "enabled")
    row("Nested VT-x/AMD-V", "disabled")
    row("CPUID Portability Level", "0")
    row("CPUID overrides", "None")
    row("Boot menu mode", "message and menu")
    row("Boot Device 1", "Floppy")
    row("Boot Device 2", "DVD")
    row("Boot Device 3", "HardDisk")
    row("Boot Device 4", "Not Assigned")
    row("ACPI", "enabled")
    row("IOAPIC", "enabled")
    row("BIOS APIC mode", "APIC")
    row("Time offset", "0ms")
    row("BIOS NVRAM File", folder "/" name ".nvram")
    row("RTC", "local time")
    row("Hardware Virtualization", "enabled")
    row("Nested Paging", "enabled")
    row("Large Pages", "disabled")
    row("VT-x VPID", "enabled")
    row("VT-x Unrestricted Exec.", "enabled")
    row("AMD-V Virt. Vmsave/Vmload", "enabled")
    row("IOMMU", "None")
    row("Paravirt. Provider", "Default")
    row("Effective Paravirt. Prov.", "KVM")
    row("State", state " (since " since ")")
    row("Graphics Controller", graphics)
    row("Monitor count", "1")
    row("3D Acceleration", "disabled")
    row("2D Video Acceleration", "disabled")
    row("Teleporter Enabled", "disabled")
    row("Teleporter Port", "0")
    row("Teleporter Address", "")
    row("Teleporter Password", "")
    row("Tracing Enabled", "disabled")
    row("Allow Tracing to Access VM", "disabled")
    row("Tracing Configuration", "")
    row("Autostart Enabled", "disabled")
    row("Autostart Delay", "0")
    row("Default Frontend", "")
    row("VM process priority", "default")
    print "Storage Controllers:"
    print "#0: 'SATA', Type: IntelAhci, Instance: 0, Ports: 2 (max 30), Bootable"
    print "  Port 0, Unit 0: UUID: " uuid ", Location: \"" folder "/" name ".vdi\""
    for (i = 0; i < 8; i++) {
        label = "NIC " (i + 1)
        if (enabled[i] != "true") { row(label, "disabled"); continue }
        row(label, "MAC: " mac[i] ", Attachment: " attach[i] ", Cable connected: " cable[i] \
            ", Trace: off (file: none), Type: " nictype[i] ", Reported speed: 0 Mbps, Boot priority: 0, " \
            "Promisc Policy: deny, Bandwidth group: none")
        if (attach[i] == "NAT") {
            printf "NIC %d Settings:  MTU: 0, Socket (send: 64, receive: 64), TCP Window (send:64, receive: 64)\n", i + 1
            printf "%s", rules[i]
        }
    }
    row("Pointing Device", "USB Tablet")
    row("Keyboard Device", "PS/2 Keyboard")
    row("UART 1", "disabled")
    row("UART 2", "disabled")
    row("LPT 1", "disabled")
    row("Audio", "enabled (Driver: CoreAudio, Controller: HDA, Codec: STAC9221)")
    row("Audio playback", "enabled")
    row("Audio capture", "disabled")
    row("Clipboard Mode", "disabled")
    row("Drag and drop Mode", "disabled")
    if (state == "running" || state == "paused")
        row("Session name", "GUI/Qt")
    row("VRDE", "disabled")
    row("OHCI USB", "enabled")
    row("EHCI USB", "disabled")
    row("xHCI USB", "disabled")
    print ""
    print "USB Device Filters:"
    print ""
    print "<none>"
    print ""
    print "Bandwidth groups:  <none>"
    print ""
    print "Shared folders:<none>"
    print ""
    row("Capturing", "not active")
    row("Capture audio", "not active")
    row("Capture screens", "0")
    row("Capture file", folder "/" name ".webm")
    row("Capture dimensions", "1024x768")
    row("Capture rate", "512kbps")
    row("Capture FPS", "25")
    row("Capture options", "vc_enabled=true,ac_enabled=false,ac_profile=med")
    print ""
    print "Description:"
    print ""
    print "Guest:"
    print ""
    print "Configured memory balloon size: 0MB"
    print ""
}
