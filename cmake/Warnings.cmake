# Warnings are errors everywhere. Floating point is evaluated exactly as
# written: no contraction into fused multiply-adds, never fast-math.
add_compile_options(-Wall -Wextra -Werror -ffp-contract=off)
