// Embeds Info.plist byte for byte in the section in which the system looks for the property list of a program
// without a bundle. It names the program that asks for Speech Recognition, and the reason.
//
// The assembler does this instead of the linker's -sectcreate, which not every linker that builds
// the helper supports.
    .section __TEXT,__info_plist
    .globl _palaver_info_plist
    .no_dead_strip _palaver_info_plist
_palaver_info_plist:
    .incbin "Info.plist"
