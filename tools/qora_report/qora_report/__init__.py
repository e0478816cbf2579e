"""qora_report: turns qora_player runs into results (JSON, JUnit XML,
charts) and compares output dumps with their goldens in full."""
