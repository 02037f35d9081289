/* A client of the installed library: loads the product record and lights
 * the system lamp. */
#include <stdio.h>

#include <vexasdk/peripherals.h>
#include <vexasdk/product_config.h>

int main(void)
{
    bi_init_product_config();
    if (bi_product == NULL)
        return 1;
    printf("%s %d\n", bi_product->product_name, bi_sysled_set_state(1));
    return 0;
}
