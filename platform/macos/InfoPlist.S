// Puts Info.plist into the program, byte for byte, as the section in which the system looks for the property list of
// a program without a bundle: it names who asks for Speech Recognition, and why.
//
// By the assembler and not by the linker's -sectcreate, since not every linker that builds the helper knows that one.
    .section __TEXT,__info_plist
    .globl _palaver_info_plist
    .no_dead_strip _palaver_info_plist
_palaver_info_plist:
    .incbin "Info.plist"
