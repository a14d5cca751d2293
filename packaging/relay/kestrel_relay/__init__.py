"""Shows the pictures of many boards to many viewers, with one connection to each board."""
