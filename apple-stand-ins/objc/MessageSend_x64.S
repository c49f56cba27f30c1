// Sends messages: looks up the method and jumps to it with all arguments unchanged. System V calling
// convention.

// Saves every register that may hold an argument.
.macro SAVE_ARGUMENTS
  push %rbp
  .cfi_def_cfa_offset 16
  .cfi_offset %rbp, -16
  mov %rsp, %rbp
  .cfi_def_cfa_register %rbp
  sub $192, %rsp
  mov %rdi, -8(%rbp)
  mov %rsi, -16(%rbp)
  mov %rdx, -24(%rbp)
  mov %rcx, -32(%rbp)
  mov %r8, -40(%rbp)
  mov %r9, -48(%rbp)
  mov %rax, -56(%rbp)
  movaps %xmm0, -80(%rbp)
  movaps %xmm1, -96(%rbp)
  movaps %xmm2, -112(%rbp)
  movaps %xmm3, -128(%rbp)
  movaps %xmm4, -144(%rbp)
  movaps %xmm5, -160(%rbp)
  movaps %xmm6, -176(%rbp)
  movaps %xmm7, -192(%rbp)
.endm

// Restores the argument registers. The method is in %r11.
.macro RESTORE_ARGUMENTS
  mov %rax, %r11
  mov -8(%rbp), %rdi
  mov -16(%rbp), %rsi
  mov -24(%rbp), %rdx
  mov -32(%rbp), %rcx
  mov -40(%rbp), %r8
  mov -48(%rbp), %r9
  mov -56(%rbp), %rax
  movaps -80(%rbp), %xmm0
  movaps -96(%rbp), %xmm1
  movaps -112(%rbp), %xmm2
  movaps -128(%rbp), %xmm3
  movaps -144(%rbp), %xmm4
  movaps -160(%rbp), %xmm5
  movaps -176(%rbp), %xmm6
  movaps -192(%rbp), %xmm7
  leave
  .cfi_def_cfa %rsp, 8
.endm

.text

// objc_msgSend(receiver, selector, ...). Returns zero when the receiver is nil.
.globl objc_msgSend
.type objc_msgSend, @function
objc_msgSend:
  .cfi_startproc
  test %rdi, %rdi
  je 1f
  SAVE_ARGUMENTS
  mov (%rdi), %rdi
  call palaver_objc_method@PLT
  RESTORE_ARGUMENTS
  jmp *%r11
1:
  xor %eax, %eax
  xor %edx, %edx
  pxor %xmm0, %xmm0
  pxor %xmm1, %xmm1
  ret
  .cfi_endproc
.size objc_msgSend, . - objc_msgSend

// objc_msgSend_stret(address of the result, receiver, selector, ...), for results in memory. The compiler
// itself zeroes the result of a message to nil.
.globl objc_msgSend_stret
.type objc_msgSend_stret, @function
objc_msgSend_stret:
  .cfi_startproc
  test %rsi, %rsi
  je 1f
  SAVE_ARGUMENTS
  mov (%rsi), %rdi
  mov %rdx, %rsi
  call palaver_objc_method@PLT
  RESTORE_ARGUMENTS
  jmp *%r11
1:
  mov %rdi, %rax
  ret
  .cfi_endproc
.size objc_msgSend_stret, . - objc_msgSend_stret

// objc_msgSendSuper2({receiver, class of the calling method}, selector, ...). The lookup starts at the
// superclass.
.globl objc_msgSendSuper2
.type objc_msgSendSuper2, @function
objc_msgSendSuper2:
  .cfi_startproc
  SAVE_ARGUMENTS
  mov 8(%rdi), %rdi
  mov 8(%rdi), %rdi
  call palaver_objc_method@PLT
  RESTORE_ARGUMENTS
  mov (%rdi), %rdi
  jmp *%r11
  .cfi_endproc
.size objc_msgSendSuper2, . - objc_msgSendSuper2

// The same for results in memory.
.globl objc_msgSendSuper2_stret
.type objc_msgSendSuper2_stret, @function
objc_msgSendSuper2_stret:
  .cfi_startproc
  SAVE_ARGUMENTS
  mov 8(%rsi), %rdi
  mov 8(%rdi), %rdi
  mov %rdx, %rsi
  call palaver_objc_method@PLT
  RESTORE_ARGUMENTS
  mov (%rsi), %rsi
  jmp *%r11
  .cfi_endproc
.size objc_msgSendSuper2_stret, . - objc_msgSendSuper2_stret

.section .note.GNU-stack, "", @progbits
