/* What bench/cgi_page.c prints, by stdio alone: one line or, with a number given, a page of so many rows. */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
    printf("Content-Type: text/html\n\n");
    if (argc < 2) {
        printf("hello\n");
        return 0;
    }
    printf("<table>\n\n");
    const int count = atoi(argv[1]);
    for (int row = 0; row < count; row++) {
        printf("<tr><td>#%d</td><td>name %d</td><td>city %d</td><td>visits %d</td><td>place %d</td></tr>\n\n", row,
               row, row, row, row);
    }
    printf("</table>\n\n");
    return 0;
}
